// VantorHelper: the background application the Vantor pane starts, configures and stops.

#include "Bundle.h"
#include "ProcessInfo.h"
#include "VantorHelper.h"

#include <QCoreApplication>

#include <csignal>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
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
