// VantorHelper: the background application the Vantor pane starts, configures and stops.

#include "Bundle.h"
#include "ProcessInfo.h"
#include "VantorHelper.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("VantorHelper"));

    ProcessInfo::processInfo()->installTerminationHandler();

    const Bundle *bundle = Bundle::mainBundle();
    const QString version =
        bundle ? bundle->objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString() : QString();
    VantorHelper helper(version);
    if (!helper.start())
        return 0;
    return app.exec();
}
