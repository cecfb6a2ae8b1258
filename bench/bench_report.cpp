// "vantorctl report" of a watched tree the helper has finished, 200,000 small text files (100 to
// a folder) on a loop-mounted btrfs, against "btrfs filesystem du -s" of the same tree: both
// with a warm page cache, best of three. The helper compresses the tree first, which takes a
// while. Needs root (mounting); says so and stops where that is not possible.

#include "BenchSession.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "platform/DistributedNotificationCenter.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <cstdio>

namespace {

} // namespace

int main(int argc, char *argv[])
{
    BenchSession session("bench-report");
    if (!session.isReady())
        return 0;
    QCoreApplication app(argc, argv);
    const int files = argc > 1 ? std::atoi(argv[1]) : 200000;
    const QString mnt = session.root() + QStringLiteral("/mnt");
    if (!session.mountBtrfs(session.root() + QStringLiteral("/report.img"), mnt, qint64(6) << 30))
        return 0;
    const QString folder = mnt + QStringLiteral("/tree");
    BenchSession::makeTree(folder, files);

    // The helper compresses the tree, then quits, writing its rescan cache.
    QProcess helper;
    helper.setProcessChannelMode(QProcess::ForwardedChannels);
    helper.start(QStringLiteral(VANTOR_HELPER_EXECUTABLE), {});
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    BenchSession::waitFor([&] { return bus->isServiceRegistered(HelperIdentity::busName()).value(); }, 10000, 50);
    QElapsedTimer timer;
    timer.start();
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::Folders), {{QLatin1String(Notifications::FoldersToAddKey), QStringList{folder}}});
    int status = 0;
    qint64 recorded = 0;
    if (!BenchSession::waitFor(
            [&] { return BenchSession::record(session.store(), folder, &status, &recorded) && status == 100; }, 3600000,
            50)) {
        std::printf("bench-report: the helper did not finish the tree\n");
        return 1;
    }
    std::printf("%d files: compressed by the helper in %.1f s, saving %lld bytes\n", files, timer.nsecsElapsed() / 1e9,
                static_cast<long long>(recorded));
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldQuit));
    if (!helper.waitForFinished(120000))
        helper.kill();

    QByteArray output;
    // Read once first, so both meet the same warm cache.
    BenchSession::run(QStringLiteral("btrfs"),
                      {QStringLiteral("filesystem"), QStringLiteral("du"), QStringLiteral("-s"), folder});
    const double du = BenchSession::bestOfThree(
        QStringLiteral("btrfs"), {QStringLiteral("filesystem"), QStringLiteral("du"), QStringLiteral("-s"), folder},
        &output);
    std::printf("btrfs filesystem du -s:\n%s", output.constData());
    const double report = BenchSession::bestOfThree(
        QStringLiteral(VANTORCTL),
        {QStringLiteral("--pane"), QStringLiteral(VANTOR_PANE), QStringLiteral("report"), folder}, &output);
    std::printf("vantorctl report:\n%s", output.constData());
    BenchSession::run(QStringLiteral(VANTORCTL),
                      {QStringLiteral("--pane"), QStringLiteral(VANTOR_PANE), QStringLiteral("report"),
                       QStringLiteral("--json"), folder},
                      &output);
    const qint64 reported = QJsonDocument::fromJson(output)
                                .object()
                                .value(QStringLiteral("folders"))[0][QStringLiteral("savings")]
                                .toInteger();
    std::printf("savings: %lld reported, %lld recorded\n", static_cast<long long>(reported),
                static_cast<long long>(recorded));
    const double ratio = report / du;
    std::printf("btrfs filesystem du -s %.2f s, vantorctl report %.2f s (ratio %.2f, goal 2)\n", du, report, ratio);
    session.unmount(mnt);
    std::printf("RESULT bench-report %.2f x\n", ratio);
    return 0;
}
