// VantorPref: helper process control (launching, the on/off switch, updates, relaunch).

#include "prefpane/VantorPref.h"

#include "gui/Alerts.h"
#include "platform/Bundle.h"
#include "prefpane/CocoaGeometry.h"
#include "platform/FileManager.h"
#include "gui/PreferencePaneHost.h"
#include "platform/ProcessInfo.h"
#include "platform/RunningApplication.h"
#include "platform/Task.h"
#include "common/VTDefaultsController.h"
#include "common/VTPreferenceCommunicator.h"
#include "platform/Workspace.h"

#include <QFile>
#include <QFileInfo>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QUrl>

#include <sys/stat.h>

namespace {

const QString kHelperIdentifier = QStringLiteral("com.quillfen.VantorHelper");
constexpr unsigned kHelperPermissions = 0755; // compared for equality
const QString kHelperExecutable = QStringLiteral("/Contents/MacOS/VantorHelper");
const QString kRelaunchTool = QStringLiteral("/Contents/Frameworks/Sparkle.framework/Resources/relaunch");

// The switch's frame: x by position (off, on), fixed y and size, in y-up coordinates.
constexpr int kSwitchX[2] = {89, 142};
constexpr int kSwitchY = 86;
constexpr int kSwitchWidth = 40;
constexpr int kSwitchHeight = 25;

// The permissions sheet is shown once per run of the host, however often the helper is launched.
bool g_warnedOnHelperPermissions = false;

QString helperApplicationPath(const Bundle *bundle)
{
    return bundle ? bundle->pathForResource(QStringLiteral("VantorHelper"), QStringLiteral("app")) : QString();
}

// The item's own permission bits (a link describes itself, not its target); nullopt when
// it cannot be read.
std::optional<unsigned> posixPermissions(const QString &path)
{
    struct stat st = {};
    if (path.isEmpty() || ::lstat(QFile::encodeName(path).constData(), &st) != 0)
        return std::nullopt;
    return unsigned(st.st_mode & 07777);
}

bool helperIsRunning()
{
    return !Workspace::shared()->runningApplicationsWithBundleIdentifier(kHelperIdentifier).isEmpty();
}

} // namespace

void VantorPref::launchHelper()
{
    const QString helperPath = helperApplicationPath(bundle());
    QString error;

    // Runs before the existence test: a missing helper is a wrong one too.
    if (posixPermissions(helperPath + kHelperExecutable) != kHelperPermissions)
        warnOnWrongHelperPermissions();

    if (helperPath.isEmpty())
        return;

    RunningApplication *app =
        Workspace::shared()->launchApplicationAtURL(QUrl::fromLocalFile(helperPath + u'/'), Workspace::LaunchAsync, &error);
    qInfo("Helper launch error: %s", error.isEmpty() ? "(null)" : qPrintable(error));
    qInfo("running app is %s", qPrintable(RunningApplication::description(app)));

    // Observed with no context, so the pane takes no action when the helper ends.
    if (app) {
        connect(app, &RunningApplication::terminatedChanged, this,
                [this, app] { observeValueForKeyPath(QStringLiteral("terminated"), app, {}, nullptr); });
    }
}

void VantorPref::warnOnWrongHelperPermissions()
{
    if (g_warnedOnHelperPermissions)
        return;
    g_warnedOnHelperPermissions = true;

    const Alert alert{QStringLiteral("Permissions Issue"),
                      QStringLiteral("The Vantor Helper application has the wrong permissions, and will probably "
                                     "not run. Please reinstall Vantor or change the permissions manually, or "
                                     "contact support."),
                      {QStringLiteral("OK")}};
    Alerts::shared()->beginSheet(host() ? host()->keyWindow() : nullptr, alert);
}

void VantorPref::toggleActive(QObject *sender)
{
    if (!helperIsRunning())
        launchHelper();

    // The host must not be killed between storing the setting and telling the helper.
    SuddenTerminationGuard guard;

    // A click on the switch has flipped it already.
    if (sender != toggleActiveButton)
        toggleActiveButton->setChecked(!toggleActiveButton->isChecked());

    VTDefaultsController::sharedDefaultsController()->setHelperActive(toggleActiveButton->isChecked());
    setAutorunAtLogin(toggleActiveButton->isChecked());
    setActiveButton(toggleActiveButton->isChecked(), true);
    VTPreferenceCommunicator::sharedCommunicatorController()->notifyHelperActiveStatusChanged();
}

void VantorPref::setActiveButton(bool active, bool animated)
{
    const QRect frame = CocoaGeometry::rectInSuperview(toggleActiveButton->parentWidget(), kSwitchX[active ? 1 : 0],
                                                       kSwitchY, kSwitchWidth, kSwitchHeight);
    if (!animated) {
        toggleActiveButton->setGeometry(frame);
        return;
    }
    auto *slide = new QPropertyAnimation(toggleActiveButton, "geometry", toggleActiveButton);
    slide->setDuration(250); // the platform's default implicit-animation duration
    slide->setEndValue(frame);
    slide->start(QAbstractAnimation::DeleteWhenStopped);
}

void VantorPref::checkForUpdates(QObject *)
{
    VTPreferenceCommunicator::sharedCommunicatorController()->notifyHelperShouldCheckForUpdates();
}

void VantorPref::relaunchSystemPreferences()
{
    const QString source = helperApplicationPath(bundle()) + kRelaunchTool;
    // Never a shared folder: what stands there is executed.
    const QString temporary = FileManager::temporaryDirectory();
    if (temporary.isEmpty()) {
        qWarning("vantor: no private temporary folder; the host will not be started again");
        return;
    }
    const QString destination = temporary + QStringLiteral("relaunch");

    // An earlier copy may be there already; it is used as it is.
    FileManager::copyItemAtPath(source, destination);

    // The host itself, not the pane: its executable, and this process. Its arguments travel
    // with the tool, which may only get to look at this process after it has gone.
    const QString hostPath = QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget();
    QFile cmdline(QStringLiteral("/proc/self/cmdline"));
    const QByteArray hostArguments = cmdline.open(QIODevice::ReadOnly) ? cmdline.readAll() : QByteArray();
    QString error;
    if (!Task::launchedTaskWithLaunchPath(destination,
                                          {hostPath, QString::asprintf("%d", ProcessInfo::processInfo()->processIdentifier())},
                                          &error, false, {"VANTOR_RELAUNCH_ARGUMENTS=" + hostArguments.toHex()}))
        qWarning("vantor: %s", qPrintable(error));
}
