// vantor-preferences: the settings application that hosts the Vantor pane.

#include "host/HostLog.h"
#include "host/HeadlessAlerts.h"
#include "host/HostWindow.h"
#include "host/LoginWindowSetup.h"
#include "host/PaneLoader.h"
#include "gui/PreferencePane.h"
#include "platform/ProcessInfo.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QPixmap>
#include <QTimer>

#include <cstdio>
#include <ctime>

namespace {

// The command line's own output, as opposed to its log lines.
void printLine(FILE *stream, const QString &line)
{
    std::fprintf(stream, "vantor-preferences: %s\n", qPrintable(line));
    std::fflush(stream);
}

} // namespace

int main(int argc, char *argv[])
{
    // Before anything logs: standard error may be a pipe nobody reads any more (the program
    // that started us before a relaunch, a closed terminal).
    ProcessInfo::ignoreBrokenPipes();
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("vantor-preferences"));
    QApplication::setApplicationDisplayName(QStringLiteral("Vantor"));
    QApplication::setDesktopFileName(QStringLiteral("vantor-preferences"));
    QApplication::setApplicationVersion(QStringLiteral(VANTOR_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Settings for Vantor, which keeps chosen folders compressed."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption paneOption(QStringLiteral("pane"),
                                        QStringLiteral("Load the pane bundle at <path> instead of the installed one."),
                                        QStringLiteral("path"));
    const QCommandLineOption screenshotOption(
        QStringLiteral("screenshot"), QStringLiteral("Render the window to a PNG <file> once started, then quit."),
        QStringLiteral("file"));
    parser.addOption(paneOption);
    parser.addOption(screenshotOption);
    parser.process(app);

    ProcessInfo::processInfo()->installTerminationHandler();
    LoginWindowSetup::ensure();

    // A render nobody watches cannot wait for someone to dismiss an alert.
    HeadlessAlerts headlessAlerts;
    if (parser.isSet(screenshotOption))
        Alerts::setShared(&headlessAlerts);

    HostWindow window;
    if (parser.isSet(paneOption)) {
        QString error;
        PreferencePane *pane = PaneLoader::load(parser.value(paneOption), &window, &error);
        if (!pane) {
            qCWarning(lcHost).noquote() << error;
            return 1;
        }
        window.showPane(pane);
    } else if (const QString installed = PaneLoader::findInstalledPane(); !installed.isEmpty()) {
        QString error;
        if (PreferencePane *pane = PaneLoader::load(installed, &window, &error))
            window.showPane(pane);
        else {
            qCWarning(lcHost).noquote() << error;
            window.showNoPane({installed});
        }
    } else {
        qCWarning(lcHost).noquote() << QStringLiteral("no Vantor pane is installed (looked in %1)")
                                           .arg(PaneLoader::searchPaths().join(QStringLiteral(", ")));
        window.showNoPane(PaneLoader::searchPaths());
    }

    if (parser.isSet(screenshotOption)) {
        const QString file = QDir::current().absoluteFilePath(parser.value(screenshotOption));
        QObject::connect(&window, &HostWindow::firstFramePainted, &app, [&window, file] {
            if (window.grab().save(file, "PNG")) {
                printLine(stdout, QStringLiteral("wrote %1").arg(file));
                QCoreApplication::exit(0);
            } else {
                qCWarning(lcHost).noquote() << QStringLiteral("cannot write %1").arg(file);
                QCoreApplication::exit(1);
            }
        });
    }
    // For the start-up benchmark: the monotonic time of the first frame, then quit.
    if (qEnvironmentVariableIsSet("VANTOR_REPORT_FIRST_FRAME")) {
        QObject::connect(&window, &HostWindow::firstFramePainted, &app, [] {
            timespec ts = {};
            clock_gettime(CLOCK_MONOTONIC, &ts);
            std::printf("first-frame %lld\n", (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec);
            std::fflush(stdout);
            QCoreApplication::exit(0);
        });
    }

    window.show();
    return app.exec();
}
