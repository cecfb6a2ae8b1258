#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

// A throw-away home for one test process: HOME, the XDG folders and TMPDIR all point inside
// one temporary folder, made before anything looks them up; the system bus is one that is not there.
class TestEnvironment
{
public:
    TestEnvironment();

    QString root() const { return m_dir.path(); }
    QString home() const { return m_dir.path() + QStringLiteral("/home"); }
    QString dataHome() const { return home() + QStringLiteral("/.local/share"); }
    QString productFolder() const { return dataHome() + QStringLiteral("/Vantor"); }
    QString configHome() const { return home() + QStringLiteral("/.config"); }

    static QString paneBundle() { return qEnvironmentVariable("VANTOR_PANE_BUNDLE"); }
    static QString hostExecutable() { return qEnvironmentVariable("VANTOR_HOST"); }

    static QByteArray readFile(const QString &path);
    static void writeFile(const QString &path, const QByteArray &bytes);
    // Python's plistlib reading path; the repr() of what it finds, or "ERROR: ..." when it fails.
    static QString pythonPlist(const QString &path);

    static QString sqlite(const QString &database, const QString &sql);
    // Posted by another program (gdbus); userInfo in GVariant text form. gdbus's exit code.
    static int postWithGdbus(const QString &name, const QString &userInfo = QStringLiteral("@a{sv} {}"));
    // Waits until another process on the bus observes that notification: one that subscribes
    // after its last start-up post cannot be told ready by that post.
    static bool waitForObserver(const QString &name, int timeoutMs = 30000);
    static bool helperOwnsItsName();

    // A program run to its end: its exit code (-1 when it crashed or ran out of time) and output.
    struct Run {
        int exitCode = -1;
        QString out;
        QString err;
    };
    static Run run(const QString &program, const QStringList &arguments,
                   const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment(), int timeoutMs = 60000);

    // Live processes, not only our children, whose environment holds entry ("NAME=value"),
    // running executable when one is given, each with its arguments.
    static QMap<int, QList<QByteArray>> processesWithEnvironment(const QByteArray &entry,
                                                                 const QString &executable = {});
    // Those on this test's own session bus (other tests start theirs at the same time).
    static QMap<int, QList<QByteArray>> processesOnThisBus(const QString &executable);
    static QString helperExecutable();
    // This process's environment with a fresh "VANTOR_TEST_TOKEN=<uuid>" entry (returned in
    // token), so what is started with it, and what that starts, is found by its token.
    static QProcessEnvironment markedEnvironment(QByteArray *token);

    // The session's autostart runner (dex) over this home alone, without system-wide entries
    // or this test's display platform; true when it ran and succeeded.
    bool runAutostart() const;

private:
    QTemporaryDir m_dir;
};
