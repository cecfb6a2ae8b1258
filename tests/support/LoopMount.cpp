#include "LoopMount.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QThread>

#include <unistd.h>

LoopMount::LoopMount(const QString &dir, const QString &type, int megabytes)
    : m_image(dir + QStringLiteral("/%1.img").arg(type))
    , m_mountPoint(dir + u'/' + type)
    , m_type(type)
    , m_megabytes(megabytes)
{
}

LoopMount::~LoopMount()
{
    // A process that used the file system may take a moment to let go of it.
    for (int attempt = 0; m_mounted && attempt < 50; ++attempt) {
        m_mounted = !run(QStringLiteral("umount"), {m_mountPoint});
        if (m_mounted)
            QThread::msleep(100);
    }
    // Still held: detached, so that no mount outlives the test.
    if (m_mounted)
        run(QStringLiteral("umount"), {QStringLiteral("--lazy"), m_mountPoint});
    QDir().rmdir(m_mountPoint);
    QFile::remove(m_image);
}

bool LoopMount::run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        m_reason = QStringLiteral("%1 %2 failed: %3")
                       .arg(program, arguments.join(u' '),
                            QString::fromLocal8Bit(process.readAll()).trimmed() + process.errorString());
        return false;
    }
    return true;
}

bool LoopMount::mount()
{
    if (::geteuid() != 0) {
        m_reason = QStringLiteral("mounting a %1 image needs root").arg(m_type);
        return false;
    }
    QFile image(m_image);
    if (!image.open(QIODevice::WriteOnly) || !image.resize(qint64(m_megabytes) * 1024 * 1024)) {
        m_reason = QStringLiteral("cannot make the image %1").arg(m_image);
        return false;
    }
    image.close();
    QDir().mkpath(m_mountPoint);
    const QString mkfs = QStringLiteral("mkfs.") + m_type;
    const QStringList quiet = m_type == QLatin1String("btrfs")
        ? QStringList{QStringLiteral("-q")}
        : QStringList{QStringLiteral("-q"), QStringLiteral("-F")};
    if (!run(mkfs, quiet + QStringList{m_image}))
        return false;
    if (!run(QStringLiteral("mount"), {QStringLiteral("-o"), QStringLiteral("loop"), m_image, m_mountPoint}))
        return false;
    m_mounted = true;
    return true;
}

qint64 LoopMount::usage(const QString &field) const
{
    TestFiles::run(QStringLiteral("sync"), {});
    const QString out =
        TestFiles::run(QStringLiteral("btrfs"),
                       {QStringLiteral("filesystem"), QStringLiteral("usage"), QStringLiteral("-b"), m_mountPoint});
    for (const QString &line : out.split(u'\n')) {
        if (line.trimmed().startsWith(field))
            return line.mid(line.indexOf(field) + field.size()).simplified().section(u' ', 0, 0).toLongLong();
    }
    return -1;
}

qint64 LoopMount::compsizeSavings(const QString &path)
{
    TestFiles::run(QStringLiteral("sync"), {});
    const QStringList total = TestFiles::run(QStringLiteral("compsize"), {QStringLiteral("-b"), path})
                                  .split(u'\n')
                                  .filter(QStringLiteral("TOTAL"))
                                  .value(0)
                                  .simplified()
                                  .split(u' ');
    return total.size() >= 4 ? total.at(3).toLongLong() - total.at(2).toLongLong() : -1;
}

bool LoopMount::isCompressed(const QString &path)
{
    TestFiles::run(QStringLiteral("sync"), {});
    return TestFiles::run(QStringLiteral("compsize"), {path}).contains(QLatin1String("zstd"));
}

qint64 LoopMount::exclusiveBytes(const QString &path)
{
    const QString out = TestFiles::run(
        QStringLiteral("btrfs"), {QStringLiteral("filesystem"), QStringLiteral("du"), QStringLiteral("--raw"), path});
    return out.split(u'\n').last().simplified().section(u' ', 1, 1).toLongLong();
}
