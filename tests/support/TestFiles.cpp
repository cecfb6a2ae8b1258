#include "TestFiles.h"

#include "TestEnvironment.h"

#include <QCryptographicHash>
#include <QFile>
#include <QRandomGenerator>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

QByteArray TestFiles::text(qsizetype size, quint32 seed)
{
    static const char *const words[] = {"compress", "folder",       "savings ",       "helper",
                                        "btrfs\n",  "int main() {", "return 0;}\n",   "the ",
                                        "zstd ",    "record ",      "status = 100;\n"};
    QRandomGenerator random(seed);
    QByteArray bytes;
    bytes.reserve(size);
    while (bytes.size() < size)
        bytes += words[random.bounded(int(std::size(words)))];
    bytes.truncate(size);
    return bytes;
}

QByteArray TestFiles::noise(qsizetype size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    return bytes;
}

QMap<QByteArray, QByteArray> TestFiles::hashes(const QString &folder)
{
    QMap<QByteArray, QByteArray> result;
    const QByteArray root = QFile::encodeName(folder);
    QList<QByteArray> pending{QByteArray()};
    while (!pending.isEmpty()) {
        const QByteArray relative = pending.takeLast();
        const int dirFd = ::open((root + relative).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOATIME);
        DIR *dir = dirFd >= 0 ? ::fdopendir(dirFd) : nullptr;
        if (!dir)
            continue;
        while (const dirent *entry = ::readdir(dir)) {
            const QByteArray path = relative + '/' + entry->d_name;
            if (qstrcmp(entry->d_name, ".") == 0 || qstrcmp(entry->d_name, "..") == 0)
                continue;
            if (entry->d_type == DT_DIR) {
                pending.append(path);
                continue;
            }
            QFile file;
            QCryptographicHash hash(QCryptographicHash::Sha256);
            const int fd = ::open((root + path).constData(), O_RDONLY | O_CLOEXEC | O_NOATIME);
            if (fd >= 0 && file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
                hash.addData(&file);
            else
                hash.addData("unreadable");
            result.insert(path, hash.result());
        }
        ::closedir(dir);
    }
    return result;
}

void TestFiles::writeBytes(const QByteArray &path, const QByteArray &bytes)
{
    QFile file;
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0 && file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle))
        file.write(bytes);
}

bool TestFiles::fallocate(const QString &path, qint64 bytes)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const bool done = fd >= 0 && ::posix_fallocate(fd, 0, bytes) == 0;
    if (fd >= 0)
        ::close(fd);
    return done;
}

QString TestFiles::run(const QString &program, const QStringList &arguments)
{
    return TestEnvironment::run(program, arguments).out.trimmed();
}

QString TestFiles::sh(const QString &script, const QStringList &arguments, uid_t uid)
{
    const QStringList command = QStringList{QStringLiteral("-c"), script} + arguments;
    if (uid == 0)
        return run(QStringLiteral("sh"), command);
    return run(QStringLiteral("setpriv"),
               QStringList{QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--regid=%1").arg(uid),
                           QStringLiteral("--clear-groups"), QStringLiteral("sh")}
                   + command);
}

void TestFiles::chown(const QString &path, uid_t uid)
{
    run(QStringLiteral("chown"), {QStringLiteral("-R"), QStringLiteral("%1:%1").arg(uid), path});
}
