#include "TestEnvironment.h"
#include "common/HelperIdentity.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>
#include <QUuid>

TestEnvironment::TestEnvironment()
{
    for (const QString &sub :
         {QStringLiteral("/home/.local/share"), QStringLiteral("/home/.config"), QStringLiteral("/home/.local/state"),
          QStringLiteral("/runtime"), QStringLiteral("/tmp")})
        QDir().mkpath(m_dir.path() + sub);
    QFile::setPermissions(m_dir.path() + QStringLiteral("/runtime"),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv("HOME", QFile::encodeName(home()));
    qputenv("XDG_DATA_HOME", QFile::encodeName(dataHome()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(configHome()));
    qputenv("XDG_STATE_HOME", QFile::encodeName(home() + QStringLiteral("/.local/state")));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(m_dir.path() + QStringLiteral("/runtime")));
    qputenv("TMPDIR", QFile::encodeName(m_dir.path() + QStringLiteral("/tmp")));
    // No system bus unless a test makes one: the machine running on battery must not pause its helpers.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + QFile::encodeName(m_dir.path() + QStringLiteral("/no-bus")));
}

QByteArray TestEnvironment::readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void TestEnvironment::writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        f.write(bytes);
}

QString TestEnvironment::pythonPlist(const QString &path)
{
    return run(QStringLiteral("python3"),
               {QStringLiteral("-c"),
                QStringLiteral("import plistlib,sys\n"
                               "try:\n"
                               "  d=plistlib.load(open(sys.argv[1],'rb'))\n"
                               "  print(repr(dict(sorted(d.items())) if isinstance(d, dict) else d))\n"
                               "except Exception as e:\n"
                               "  print('ERROR: %s' % e)\n"),
                path})
        .out.trimmed();
}

int TestEnvironment::postWithGdbus(const QString &name, const QString &userInfo)
{
    return QProcess::execute(QStringLiteral("gdbus"),
                             {QStringLiteral("emit"), QStringLiteral("--session"), QStringLiteral("--object-path"),
                              QStringLiteral("/com/quillfen/vantor"), QStringLiteral("--signal"),
                              QStringLiteral("com.quillfen.vantor.DistributedNotification.Post"),
                              QStringLiteral("'%1'").arg(name), userInfo});
}

bool TestEnvironment::waitForObserver(const QString &name, int timeoutMs)
{
    // A plain call: an interface object would introspect, and Qt keeps what it learns until exit.
    const QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus.Debug.Stats"), QStringLiteral("GetAllMatchRules"));
    const QString rule = QStringLiteral("arg0='%1'").arg(name);
    return QTest::qWaitFor(
        [&] {
            const QDBusMessage reply = QDBusConnection::sessionBus().call(call);
            const auto rules = qdbus_cast<QMap<QString, QStringList>>(reply.arguments().value(0));
            for (const QStringList &ofOne : rules) {
                if (!ofOne.filter(rule).isEmpty())
                    return true;
            }
            return false;
        },
        timeoutMs);
}

bool TestEnvironment::helperOwnsItsName()
{
    return QDBusConnection::sessionBus().interface()->isServiceRegistered(HelperIdentity::busName());
}

TestEnvironment::Run TestEnvironment::run(const QString &program, const QStringList &arguments,
                                          const QProcessEnvironment &env, int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, arguments);
    const bool ended = process.waitForFinished(timeoutMs); // false too when it did not start
    if (!ended) {
        process.kill();
        process.waitForFinished();
    }
    return {ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
}

QMap<int, QList<QByteArray>> TestEnvironment::processesWithEnvironment(const QByteArray &entry,
                                                                       const QString &executable)
{
    QMap<int, QList<QByteArray>> found;
    const QString exe = QFileInfo(executable).canonicalFilePath();
    for (const QString &name : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool ok = false;
        const int pid = name.toInt(&ok);
        if (!ok || pid == QCoreApplication::applicationPid())
            continue;
        if (!exe.isEmpty() && QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).symLinkTarget() != exe)
            continue;
        if (!readFile(QStringLiteral("/proc/%1/environ").arg(pid)).split('\0').contains(entry))
            continue;
        if (readFile(QStringLiteral("/proc/%1/stat").arg(pid)).contains(") Z"))
            continue;
        QList<QByteArray> args = readFile(QStringLiteral("/proc/%1/cmdline").arg(pid)).split('\0');
        args.removeLast();
        found.insert(pid, args);
    }
    return found;
}

QMap<int, QList<QByteArray>> TestEnvironment::processesOnThisBus(const QString &executable)
{
    return processesWithEnvironment("DBUS_SESSION_BUS_ADDRESS=" + qgetenv("DBUS_SESSION_BUS_ADDRESS"), executable);
}

QString TestEnvironment::helperExecutable()
{
    return HelperIdentity::executablePath(HelperIdentity::applicationPathInPane(paneBundle()));
}

QString TestEnvironment::sqlite(const QString &database, const QString &sql)
{
    // A helper may still hold the store a moment after its host is gone: wait for its lock.
    const Run shell =
        run(QStringLiteral("sqlite3"), {QStringLiteral("-cmd"), QStringLiteral(".timeout 5000"), database, sql});
    return (shell.out + shell.err).trimmed();
}

QProcessEnvironment TestEnvironment::markedEnvironment(QByteArray *token)
{
    const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    *token = "VANTOR_TEST_TOKEN=" + id.toLatin1();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("VANTOR_TEST_TOKEN"), id);
    return env;
}

bool TestEnvironment::runAutostart() const
{
    QProcess dex;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_DIRS"), root() + QStringLiteral("/no-system-config"));
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    dex.setProcessEnvironment(env);
    // What it starts outlives it: they write to our output, not to a pipe closed behind them.
    dex.setProcessChannelMode(QProcess::ForwardedChannels);
    dex.start(QStringLiteral("dex"), {QStringLiteral("-a"), QStringLiteral("-w")});
    return dex.waitForFinished(60000) && dex.exitStatus() == QProcess::NormalExit && dex.exitCode() == 0;
}
