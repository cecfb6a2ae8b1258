// Renders the pane offscreen for people to look at: a bubble's flight, the settings tab and
// the uninstall confirmation. Usage: pane-shots <folder>

#include "prefpane/BubbleLayer.h"
#include "platform/Bundle.h"
#include "FakePaneHost.h"
#include "FakeWorkspace.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "prefpane/VantorPref.h"

#include <QApplication>
#include <QDir>
#include <QPainter>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>

namespace {

void save(const QImage &image, const QString &path)
{
    if (image.save(path))
        std::printf("wrote %s\n", qPrintable(path));
    else
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: pane-shots <folder>\n");
        return 2;
    }
    const QString out = QFile::decodeName(argv[1]);
    QDir().mkpath(out);

    TestEnvironment env;
    RecordingAlerts alerts;
    FakeWorkspace workspace;
    Workspace::setShared(&workspace);
    QWidget window;
    FakePaneHost host;
    host.window = &window;
    VantorPref pane;
    pane.initWithBundle(Bundle::bundleWithPath(TestEnvironment::paneBundle()), &host);
    QWidget *view = pane.loadMainView();
    view->setParent(&window);
    window.resize(view->sizeHint().expandedTo(view->minimumSize()));
    view->resize(window.size());
    window.show();
    pane.mainViewDidLoad();
    pane.didSelect();
    QTest::qWait(100);

    // The bubble's flight, held at chosen moments; the icon's corner of the window, doubled.
    pane.addBubble();
    BubbleLayer *bubble = pane.iconLayer()->findChild<BubbleLayer *>();
    if (!QTest::qWaitFor([bubble] { return bubble->animationForKey(QStringLiteral("opacity")) != nullptr; }))
        return 1;
    QVariantAnimation *position = bubble->animationForKey(QStringLiteral("position"));
    QVariantAnimation *opacity = bubble->animationForKey(QStringLiteral("opacity"));
    position->pause();
    opacity->pause();
    const QRect corner = pane.iconLayer()->geometry().translated(pane.iconLayer()->parentWidget()->mapTo(&window, QPoint()))
                             .adjusted(-40, -10, 40, 10);
    for (int ms : {0, 75, 150, 225, 262, 290}) {
        position->setCurrentTime(ms);
        opacity->setCurrentTime(ms);
        const QImage shot = window.grab(corner).toImage();
        save(shot.scaled(shot.size() * 2, Qt::KeepAspectRatio, Qt::SmoothTransformation),
             QStringLiteral("%1/issue9-bubble-%2ms.png").arg(out).arg(ms, 3, 10, QLatin1Char('0')));
    }
    opacity->setCurrentTime(300);
    position->setCurrentTime(300);

    pane.tabView->setCurrentIndex(1);
    QTest::qWait(50);
    save(window.grab().toImage(), out + QStringLiteral("/issue9-settings.png"));

    // The sheet is a window of its own: drawn over the window where it hangs.
    pane.confirmUninstall(nullptr);
    QTest::qWait(50);
    QImage withSheet = window.grab().toImage();
    {
        QPainter painter(&withSheet);
        painter.fillRect(withSheet.rect(), QColor(0, 0, 0, 60));
        painter.drawPixmap(pane.uninstallSheet->pos() - window.mapToGlobal(QPoint()), pane.uninstallSheet->grab());
    }
    save(withSheet, out + QStringLiteral("/issue9-uninstall-sheet.png"));
    pane.cancelSheet(nullptr);
    return 0;
}
