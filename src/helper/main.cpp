// VantorHelper: the background application the Vantor pane starts, configures and stops.

#include "platform/Bundle.h"
#include "helper/HelperLog.h"
#include "platform/ProcessInfo.h"
#include "helper/VantorHelper.h"

#include <QApplication>
#include <QCoreApplication>

#include <csignal>
#include <memory>

int main(int argc, char *argv[])
{
    // Before anything logs: standard error may be a pipe nobody reads any more (the pane
    // that started us is gone).
    std::signal(SIGPIPE, SIG_IGN);
    HelperLog log;
    log.open();

    // With a display the helper has a tray icon; without one (a headless session) it still works.
    const bool display = qEnvironmentVariableIsSet("WAYLAND_DISPLAY") || qEnvironmentVariableIsSet("DISPLAY")
        || qEnvironmentVariableIsSet("QT_QPA_PLATFORM");
    std::unique_ptr<QCoreApplication> application =
        display ? std::make_unique<QApplication>(argc, argv) : std::make_unique<QCoreApplication>(argc, argv);
    QCoreApplication &app = *application;
    QApplication::setQuitOnLastWindowClosed(false);
    QCoreApplication::setApplicationName(QStringLiteral("VantorHelper"));

    ProcessInfo::processInfo()->installTerminationHandler();
    // A writer opening a file being compressed breaks the helper's lease with SIGIO; the
    // worker notices that itself, and the signal must not end the process.
    std::signal(SIGIO, SIG_IGN);

    const Bundle *bundle = Bundle::mainBundle();
    const QString version =
        bundle ? bundle->objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString() : QString();
    VantorHelper helper(version);
    if (!helper.start())
        return 0;
    return app.exec();
}
