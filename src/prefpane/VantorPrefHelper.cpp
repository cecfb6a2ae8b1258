// VantorPref: helper process control (launching, the on/off switch, updates, relaunch).

#include "prefpane/VantorPref.h"
#include "prefpane/PaneLog.h"

#include "common/HelperLauncher.h"
#include "common/VTDefaultsController.h"
#include "common/VTPreferenceCommunicator.h"
#include "gui/Alerts.h"
#include "gui/PreferencePaneHost.h"
#include "platform/FileManager.h"
#include "platform/ProcessInfo.h"
#include "platform/RunningApplication.h"
#include "platform/Task.h"
#include "prefpane/CocoaGeometry.h"

#include <QPropertyAnimation>
#include <QPushButton>

namespace {

// The switch's frame: x by position (off, on), fixed y and size, in y-up coordinates.
constexpr int kSwitchX[2] = {89, 142};
constexpr int kSwitchY = 86;
constexpr int kSwitchWidth = 40;
constexpr int kSwitchHeight = 25;

// The permissions sheet is shown once per run of the host, however often the helper is launched.
bool g_warnedOnHelperPermissions = false;

} // namespace

void VantorPref::launchHelper()
{
    const HelperLauncher launcher(bundle());

    // Runs before the existence test: a missing helper is a wrong one too.
    if (!launcher.hasExpectedPermissions())
        warnOnWrongHelperPermissions();

    const std::optional<HelperLauncher::Launch> launch = launcher.launch();
    if (!launch)
        return;
    RunningApplication *app = launch->application;
    qCInfo(lcPane, "Helper launch error: %s", launch->error.isEmpty() ? "(null)" : qPrintable(launch->error));
    qCInfo(lcPane, "running app is %s", qPrintable(RunningApplication::description(app)));

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

void VantorPref::forgetHelperPermissionsWarning()
{
    g_warnedOnHelperPermissions = false;
}

void VantorPref::toggleActive(QObject *sender)
{
    if (!HelperLauncher::isRunning())
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
    const QString source = HelperLauncher(bundle()).relaunchToolPath();
    // Never a shared folder: what stands there is executed.
    const QString temporary = FileManager::temporaryDirectory();
    if (temporary.isEmpty()) {
        qCWarning(lcPane, "no private temporary folder; the host will not be started again");
        return;
    }
    const QString destination = temporary + QStringLiteral("relaunch");

    // An earlier copy may be there already; it is used as it is.
    FileManager::copyItemAtPath(source, destination);

    // The host itself, not the pane: its executable, and this process. Its arguments travel
    // with the tool, which may only get to look at this process after it has gone.
    ProcessInfo *self = ProcessInfo::processInfo();
    const QString hostPath = self->executablePath();
    const QByteArray hostArguments = self->argumentsData();
    QString error;
    if (!Task::launchedTaskWithLaunchPath(destination, {hostPath, QString::asprintf("%d", self->processIdentifier())},
                                          &error, false, {"VANTOR_RELAUNCH_ARGUMENTS=" + hostArguments.toHex()}))
        qCWarning(lcPane, "%s", qPrintable(error));
}
