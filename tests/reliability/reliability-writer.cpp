// Writes what the pane reads, for the reliability tests to kill at any moment or to read
// alongside. "settings" and "login" print "w N" before and "d N" after writing step N,
// unbuffered, so the killer knows which steps may be on disk.
#include "platform/DistributedNotificationCenter.h"
#include "common/Notifications.h"
#include "platform/PreferencesDomain.h"
#include "common/VTDefaultsController.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QThread>

#include <sqlite3.h>

#include <cstdio>
#include <unistd.h>

namespace {

void say(const char *what, qint64 step)
{
    char line[32];
    const int n = std::snprintf(line, sizeof line, "%s %lld\n", what, static_cast<long long>(step));
    if (::write(STDOUT_FILENO, line, size_t(n)) != n)
        _exit(3);
}

void exec(sqlite3 *db, const char *sql)
{
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "reliability-writer: %s: %s\n", sql, sqlite3_errmsg(db));
        std::exit(2);
    }
}

sqlite3 *openStore(const QString &path)
{
    sqlite3 *db = nullptr;
    sqlite3_open(path.toUtf8().constData(), &db);
    sqlite3_busy_timeout(db, 5000);
    exec(db, "PRAGMA journal_mode=WAL;");
    return db;
}

void postSavingsChanged()
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::SavingsChanged));
}

// A call's answer comes after everything sent before it: nothing posted is lost at exit.
void flush()
{
    QDBusConnection::sessionBus().call(
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                                       QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")));
}

int settings(qint64 from)
{
    VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
    for (qint64 step = from + 1;; ++step) {
        say("w", step);
        store->defaults().insert(QStringLiteral("step"), step); // written by the setter's one write
        store->setVisible(step % 2 == 1);
        say("d", step);
    }
}

int login(qint64 from)
{
    for (qint64 step = from + 1;; ++step) {
        say("w", step);
        PreferencesDomain domain(QStringLiteral("loginwindow"));
        domain.setValue(QStringLiteral("AutoLaunchedApplicationDictionary"),
                        QVariantList{QVariantMap{{QStringLiteral("Path"), QStringLiteral("/opt/step %1").arg(step)}}});
        if (!domain.synchronize())
            return 2;
        say("d", step);
    }
}

int history(const QString &path, int seconds, int records)
{
    sqlite3 *db = openStore(path);
    auto *random = QRandomGenerator::global();
    QElapsedTimer clock;
    clock.start();
    qint64 moves = 0;
    while (clock.elapsed() < seconds * 1000) {
        // The grand total never changes while the split between rows and summary row does;
        // commits land in the middle of the pane's refreshes.
        const QString move =
            QStringLiteral("BEGIN IMMEDIATE; UPDATE ZHISTORY SET ZSAVINGS = ZSAVINGS - %3 WHERE Z_PK = %1;"
                           "UPDATE ZHISTORY SET ZSAVINGS = ZSAVINGS + %3 WHERE Z_PK = %2;"
                           "UPDATE ZHISTORY SET ZENABLED = 1 - ZENABLED WHERE Z_PK = %4; COMMIT;")
                .arg(1 + random->bounded(records))
                .arg(1 + random->bounded(records))
                .arg(random->bounded(1000))
                .arg(1 + random->bounded(records));
        exec(db, move.toUtf8().constData());
        if (++moves % 50 == 0)
            postSavingsChanged();
    }
    postSavingsChanged(); // for the last moves
    flush();
    sqlite3_close(db);
    std::printf("%lld moves\n", static_cast<long long>(moves));
    return 0;
}

int flood(const QString &path, int count, int milliseconds)
{
    sqlite3 *db = openStore(path);
    QElapsedTimer clock;
    clock.start();
    for (int i = 1; i <= count; ++i) {
        // Every thousandth notification comes with new figures; the last one with the final ones.
        if (i % 1000 == 0)
            exec(db, ("UPDATE ZHISTORY SET ZSAVINGS = " + QByteArray::number(i) + " WHERE Z_PK = 1").constData());
        postSavingsChanged();
        const qint64 due = qint64(i) * milliseconds / count;
        if (clock.elapsed() < due)
            QThread::usleep(quint64(due - clock.elapsed()) * 1000);
    }
    flush();
    sqlite3_close(db);
    std::printf("posted %d in %lld ms\n", count, static_cast<long long>(clock.elapsed()));
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    const QString mode = args.value(0);
    if (mode == u"settings" || mode == u"login")
        return (mode == u"login" ? login : settings)(args.value(1).toLongLong());
    if (mode == u"history")
        return history(args.value(1), args.value(2).toInt(), args.value(3).toInt());
    if (mode == u"flood")
        return flood(args.value(1), args.value(2).toInt(), args.value(3).toInt());
    std::fprintf(stderr, "usage: reliability-writer settings|login|history|flood ...\n");
    return 1;
}
