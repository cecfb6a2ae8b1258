#include "ctl/VantorCtl.h"

#include "common/FolderRequest.h"
#include "common/HelperIdentity.h"
#include "common/HelperLauncher.h"
#include "common/HelperLoginItem.h"
#include "common/Notifications.h"
#include "common/VTDefaultsController.h"
#include "common/VTPreferenceCommunicator.h"
#include "common/VTExclusionRules.h"
#include "common/VTUtil.h"
#include "ctl/HistorySnapshot.h"
#include "ctl/UsageReport.h"
#include "platform/Bundle.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/FileManager.h"
#include "platform/InstalledPane.h"
#include "platform/ProcessInfo.h"

#include <QDBusConnection>
#include <QDeadlineTimer>
#include <QThread>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

// Byte counts stay integers in JSON; a sum past 2^63 is past any disk.
QJsonValue byteCount(quint64 bytes)
{
    return QJsonValue(qint64(bytes));
}

} // namespace

QString VantorCtl::usage()
{
    return QStringLiteral("Usage: vantorctl [--pane BUNDLE] COMMAND [ARGUMENTS]\n"
                          "\n"
                          "Commands:\n"
                          "  status [--json]    whether the helper runs and is on, what it is doing (working, or\n"
                          "                     waiting and why), and the total saved\n"
                          "  list [--json]      each folder with its progress, savings and whether it still exists\n"
                          "  add PATH...        ask the helper to keep these folders compressed\n"
                          "  remove PATH...     ask the helper to stop watching these folders\n"
                          "  on                 switch the helper on (and start it at login)\n"
                          "  off                switch the helper off (and not at login)\n"
                          "  report [--json] [--depth N] PATH...\n"
                          "                     what btrfs holds in these folders (on btrfs, any folder\n"
                          "                     you may read) and their subfolders down to N levels:\n"
                          "                       files and bytes: regular files, each counted once, and\n"
                          "                         their size as ls shows it\n"
                          "                       referenced: their data on btrfs, as compsize counts it\n"
                          "                       on disk: what that takes, each extent once, compressed\n"
                          "                         ones by their compressed size (compsize's Disk Usage)\n"
                          "                       compressed, saving: data stored compressed, and what\n"
                          "                         that saves\n"
                          "                       would shrink, Vantor would save: plain data of the\n"
                          "                         folder's own that compression would shrink, and by how\n"
                          "                         much; would not shrink: the rest of it\n"
                          "                       plain and shared: plain data shared with another file or\n"
                          "                         a snapshot, which Vantor leaves as it is\n"
                          "                       exclusive, shared: as btrfs filesystem du counts them\n"
                          "                       no copy-on-write, swap files, excluded: files Vantor\n"
                          "                         leaves as they are; unreadable: files you cannot read\n"
                          "                       left out: other file systems, read-only subvolumes\n"
                          "                         (snapshots), excluded and unreadable folders\n"
                          "                     Compressed sizes come from a zstd model of btrfs's\n"
                          "                     compression; in folders Vantor watches, from what the\n"
                          "                     helper found, without reading the files.\n"
                          "\n"
                          "Options:\n"
                          "  --json             print one JSON document, byte counts as integers\n"
                          "  --depth N          report subfolders down to N levels (default 0)\n"
                          "  --pane BUNDLE      use this Vantor.prefPane instead of the installed one\n"
                          "  -h, --help         show this help\n"
                          "\n"
                          "Exit status: 0 done, 1 refused or failed (one line on stderr), 2 usage.\n");
}

int VantorCtl::run(const QList<QByteArray> &arguments)
{
    QList<QByteArray> args = arguments;
    if (args.size() >= 2 && args.first() == "--pane") {
        m_paneBundle = QFile::decodeName(args.at(1));
        args.remove(0, 2);
    }
    // Only in the command's place: "--help" may well name a folder to add.
    if (!args.isEmpty() && (args.first() == "-h" || args.first() == "--help")) {
        print(usage());
        return Done;
    }
    const auto usageError = [](const QString &why) {
        std::fprintf(stderr, "vantorctl: %s\n%s", qPrintable(why), qPrintable(usage()));
        return int(Usage);
    };
    if (args.isEmpty())
        return usageError(QStringLiteral("no command given"));
    const QByteArray command = args.takeFirst();
    if (command == "status" || command == "list") {
        const bool json = args == QList<QByteArray>{"--json"};
        if (!json && !args.isEmpty())
            return usageError(QStringLiteral("%1 takes only --json").arg(QString::fromUtf8(command)));
        return command == "status" ? status(json) : list(json);
    }
    if (command == "add" || command == "remove") {
        if (args.isEmpty())
            return usageError(QStringLiteral("%1 needs at least one PATH").arg(QString::fromUtf8(command)));
        return command == "add" ? add(args) : remove(args);
    }
    if (command == "report") {
        bool json = false;
        int depth = 0;
        while (!args.isEmpty() && args.first().startsWith("--")) {
            const QByteArray option = args.takeFirst();
            if (option == "--")
                break;
            bool number = true;
            if (option == "--json")
                json = true;
            else if (option == "--depth" && !args.isEmpty())
                depth = args.takeFirst().toInt(&number);
            else if (option.startsWith("--depth="))
                depth = option.mid(8).toInt(&number);
            else
                return usageError(QStringLiteral("report takes --json, --depth N and folders"));
            if (!number || depth < 0)
                return usageError(QStringLiteral("--depth takes a number of levels, 0 or more"));
        }
        if (args.isEmpty())
            return usageError(QStringLiteral("report needs at least one PATH"));
        return report(args, json, depth);
    }
    if (command == "on" || command == "off") {
        if (!args.isEmpty())
            return usageError(QStringLiteral("%1 takes no arguments").arg(QString::fromUtf8(command)));
        return setActive(command == "on");
    }
    return usageError(QStringLiteral("unknown command \"%1\"").arg(UsageReport::shown(command)));
}

int VantorCtl::status(bool json)
{
    HistorySnapshot history;
    if (!readHistory(&history))
        return Failed;
    const bool bus = DistributedNotificationCenter::defaultCenter()->isConnected();
    const bool running = bus && HelperLauncher::isRunning();
    const bool active = VTDefaultsController::sharedDefaultsController()->helperActive();
    const HelperState state = running ? askHelper() : HelperState{};
    if (json) {
        QJsonObject document{{QStringLiteral("helperRunning"), bus ? QJsonValue(running) : QJsonValue()},
                             {QStringLiteral("active"), active},
                             {QStringLiteral("totalSavings"), byteCount(history.totalSavings())}};
        document.insert(QStringLiteral("state"), state.activity.isEmpty() ? QJsonValue() : state.activity);
        document.insert(QStringLiteral("waitingFor"), state.reason.isEmpty() ? QJsonValue() : state.reason);
        print(QString::fromUtf8(QJsonDocument(document).toJson()));
    } else {
        QString helper =
            bus ? (running ? QStringLiteral("running") : QStringLiteral("not running")) : QStringLiteral("unknown");
        if (!state.description.isEmpty())
            helper += QStringLiteral(", ") + state.description;
        print(QStringLiteral("Helper: %1\nActive: %2\nTotal saved: %3\n")
                  .arg(helper, active ? QStringLiteral("on") : QStringLiteral("off"),
                       VTUtil::getPrettySize(history.totalSavings())));
    }
    if (!bus) {
        fail(QStringLiteral("no session bus: cannot tell whether the helper is running"));
        return Failed;
    }
    return Done;
}

int VantorCtl::list(bool json)
{
    HistorySnapshot history;
    if (!readHistory(&history))
        return Failed;
    QJsonArray folders;
    QString text;
    for (const HistoryRecord &record : history.listed()) {
        const bool exists = FileManager::fileExists(record.folder);
        folders.append(QJsonObject{{QStringLiteral("path"), record.folder},
                                   {QStringLiteral("status"), qint64(record.status)},
                                   {QStringLiteral("savings"), byteCount(record.savings)},
                                   {QStringLiteral("exists"), exists}});
        text += QStringLiteral("%1%\t%2\t%3%4\n")
                    .arg(record.status, 3)
                    .arg(VTUtil::getPrettySize(record.savings), record.folder,
                         exists ? QString() : QStringLiteral("\t(missing)"));
    }
    if (json) {
        const QJsonObject document{{QStringLiteral("folders"), folders},
                                   {QStringLiteral("previousSavings"), byteCount(history.previousSavings())},
                                   {QStringLiteral("totalSavings"), byteCount(history.totalSavings())}};
        print(QString::fromUtf8(QJsonDocument(document).toJson()));
        return Done;
    }
    // The pane's summary row, for folders that have left the list.
    if (history.previousSavings() != 0)
        text +=
            QStringLiteral("100%\t%1\tOther: Previous savings\n").arg(VTUtil::getPrettySize(history.previousSavings()));
    text += QStringLiteral("Total saved: %1\n").arg(VTUtil::getPrettySize(history.totalSavings()));
    print(text);
    return Done;
}

int VantorCtl::add(const QList<QByteArray> &paths)
{
    bool refused = false;
    QList<QByteArray> candidates;
    for (const QByteArray &given : paths) {
        const QByteArray path = absolute(given);
        bool isDirectory = false;
        if (!FileManager::fileExistsAtFileSystemRepresentation(path, &isDirectory)) {
            fail(QStringLiteral("%1: no such folder").arg(UsageReport::shown(path)));
            refused = true;
        } else if (!isDirectory) {
            fail(QStringLiteral("%1: not a folder").arg(UsageReport::shown(path)));
            refused = true;
        } else {
            candidates.append(path);
        }
    }
    QList<QByteArray> undecodable;
    QStringList folders = FolderRequest::decodablePaths(candidates, &undecodable);
    for (QString &folder : folders)
        folder = QDir::cleanPath(folder);
    for (const QByteArray &path : std::as_const(undecodable))
        fail(FolderRequest::undecodableMessage(path));
    refused |= !undecodable.isEmpty();
    if (FolderRequest::removeOtherVolumes(&folders)) {
        fail(QStringLiteral("Filtered out folders: ") + FolderRequest::otherVolumesMessage());
        refused = true;
    }
    if (folders.isEmpty())
        return Failed;
    if (!helperCanBeAsked())
        return Failed;
    postFolders(Notifications::FoldersToAddKey, folders);
    return refused ? Failed : Done;
}

int VantorCtl::remove(const QList<QByteArray> &paths)
{
    HistorySnapshot history;
    if (!readHistory(&history))
        return Failed;
    bool refused = false;
    QStringList folders;
    for (const QByteArray &given : paths) {
        const QByteArray path = absolute(given);
        const std::optional<QString> string = FileManager::stringWithFileSystemRepresentation(path);
        if (!string) {
            fail(FolderRequest::undecodableMessage(path));
            refused = true;
            continue;
        }
        // The helper knows a folder by its record's own "folder" value, so that is what is sent.
        const QString wanted = QDir::cleanPath(*string);
        const QList<HistoryRecord> listed = history.listed();
        const auto record = std::find_if(listed.cbegin(), listed.cend(),
                                         [&](const HistoryRecord &r) { return QDir::cleanPath(r.folder) == wanted; });
        if (record == listed.cend()) {
            fail(QStringLiteral("%1: not in the list of folders").arg(wanted));
            refused = true;
        } else if (!folders.contains(record->folder)) {
            folders.append(record->folder);
        }
    }
    if (folders.isEmpty())
        return Failed;
    if (!helperCanBeAsked())
        return Failed;
    postFolders(Notifications::FoldersToRemoveKey, folders);
    return refused ? Failed : Done;
}

int VantorCtl::setActive(bool active)
{
    const QString pane = paneBundle();
    if (pane.isEmpty())
        return Failed;
    const HelperLauncher launcher(Bundle::bundleWithPath(pane));
    const bool bus = DistributedNotificationCenter::defaultCenter()->isConnected();
    bool failed = false;
    // The switch's order: a missing helper is started first. The pane would start one for
    // "off" too and ask it to quit once left; a command line leaves at once, so it does not.
    if (active && bus && !HelperLauncher::isRunning()) {
        if (!launcher.hasExpectedPermissions()) {
            fail(QStringLiteral("The Vantor Helper application has the wrong permissions, and will probably not run. "
                                "Please reinstall Vantor or change the permissions manually, or contact support."));
        }
        const std::optional<HelperLauncher::Launch> launch = launcher.launch();
        if (!launch || !launch->application) {
            fail(QStringLiteral("the helper could not be started: %1")
                     .arg(launch ? launch->error : QStringLiteral("%1 holds no helper").arg(pane)));
            failed = true;
        } else if (!waitForHelper()) {
            fail(QStringLiteral("the helper was started but did not reach the session bus within %1 s; "
                                "see its log in ~/.local/state/vantor/")
                     .arg(kHelperStartSeconds));
            failed = true;
        }
    }
    {
        // Not to be killed between storing the setting and telling the helper.
        SuddenTerminationGuard guard;
        VTDefaultsController::sharedDefaultsController()->setHelperActive(active);
        HelperLoginItem().setEnabled(active, launcher.applicationPath());
        VTPreferenceCommunicator::sharedCommunicatorController()->notifyHelperActiveStatusChanged();
        // As when the pane is left with the helper off.
        if (!active)
            VTPreferenceCommunicator::sharedCommunicatorController()->notifyHelperShouldQuit();
    }
    if (!bus) {
        fail(QStringLiteral("no session bus: the setting is stored, but no helper could be told or started"));
        return Failed;
    }
    flush();
    return failed ? Failed : Done;
}

VantorCtl::HelperState VantorCtl::askHelper()
{
    const QDBusMessage call =
        QDBusMessage::createMethodCall(HelperIdentity::busName(), HelperIdentity::statusPath(),
                                       HelperIdentity::statusInterface(), QStringLiteral("Status"));
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, kStatusTimeoutMs);
    const QList<QVariant> answer = reply.arguments();
    // A helper that cannot say (an older one, or one shutting down) is only running.
    if (reply.type() != QDBusMessage::ReplyMessage || answer.size() != 3)
        return {};
    return {answer.at(0).toString(), answer.at(1).toString(), answer.at(2).toString()};
}

int VantorCtl::report(const QList<QByteArray> &paths, bool json, int depth)
{
    HistorySnapshot history;
    if (!readHistory(&history))
        return Failed;
    // The helper's own rules, from the helper inside the pane.
    if (const Bundle *helper = Bundle::bundleWithPath(HelperIdentity::applicationPathInPane(m_paneBundle)))
        VTExclusionRules::setRuleFileLocations({}, helper->resourcePath());
    QList<QByteArray> watched;
    for (const HistoryRecord &record : history.listed()) {
        if (char *real = ::realpath(QFile::encodeName(record.folder).constData(), nullptr)) {
            watched.append(real);
            std::free(real);
        }
    }
    UsageReport report(depth, watched, ::isatty(STDERR_FILENO));
    bool failed = false;
    bool reported = false;
    for (const QByteArray &path : paths) {
        QString error;
        QByteArray folder = absolute(path);
        while (folder.size() > 1 && folder.endsWith('/'))
            folder.chop(1);
        if (report.add(folder, &error))
            reported = true;
        else
            fail(error);
        failed |= !error.isEmpty();
    }
    if (reported)
        print(json ? QString::fromUtf8(QJsonDocument(report.json()).toJson()) : report.text());
    return failed ? Failed : Done;
}

// A script runs "vantorctl on && vantorctl add DIR": the helper must be listening before "on"
// returns, or the request of the next command would reach nobody. Started in the background,
// it takes its bus name once it has subscribed.
bool VantorCtl::waitForHelper()
{
    // Our own child counts as running from its start; only its bus name says it listens.
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    QDeadlineTimer deadline(kHelperStartSeconds * 1000);
    while (!bus->isServiceRegistered(HelperIdentity::busName()).value()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(50);
    }
    return true;
}

QString VantorCtl::paneBundle()
{
    if (m_paneBundle.isEmpty())
        m_paneBundle = InstalledPane::find();
    if (m_paneBundle.isEmpty()) {
        fail(QStringLiteral("Vantor is not installed (no pane bundle in %1)")
                 .arg(InstalledPane::searchPaths().join(QStringLiteral(", "))));
    } else if (!QFileInfo::exists(m_paneBundle + QStringLiteral("/Contents/Info.plist"))) {
        fail(QStringLiteral("%1 is not a Vantor pane bundle").arg(m_paneBundle));
        return {};
    }
    return m_paneBundle;
}

bool VantorCtl::readHistory(HistorySnapshot *snapshot)
{
    const QString pane = paneBundle();
    if (pane.isEmpty())
        return false;
    QString error;
    if (!snapshot->read(pane, &error)) {
        fail(error);
        return false;
    }
    return true;
}

bool VantorCtl::helperCanBeAsked()
{
    // A request posted now would be lost: say so rather than drop it silently.
    if (!DistributedNotificationCenter::defaultCenter()->isConnected()) {
        fail(QStringLiteral("no session bus, so the helper cannot be asked: nothing was sent"));
        return false;
    }
    if (!HelperLauncher::isRunning()) {
        fail(QStringLiteral("the Vantor helper is not running, so nothing was sent; "
                            "start it with \"vantorctl on\" and try again"));
        return false;
    }
    return true;
}

void VantorCtl::postFolders(const char *key, const QStringList &folders)
{
    DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::Folders),
                                                                         {{QLatin1String(key), folders}});
    flush();
}

void VantorCtl::flush()
{
    // A round trip: the bus has everything posted before this process ends.
    QDBusConnection::sessionBus().interface()->isServiceRegistered(HelperIdentity::busName());
}

QByteArray VantorCtl::absolute(const QByteArray &path)
{
    if (path.startsWith('/'))
        return path;
    char *cwd = ::getcwd(nullptr, 0);
    const QByteArray absolutePath = QByteArray(cwd ? cwd : "") + '/' + path;
    std::free(cwd);
    return absolutePath;
}

void VantorCtl::fail(const QString &line)
{
    std::fprintf(stderr, "vantorctl: %s\n", qPrintable(line));
}

void VantorCtl::print(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stdout);
}
