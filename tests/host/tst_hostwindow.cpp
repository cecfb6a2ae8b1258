#include "host/HostWindow.h"
#include "gui/PreferencePane.h"

#include <QApplication>
#include <QTest>

namespace {

// Records the lifecycle calls the host makes.
class RecordingPane : public PreferencePane
{
public:
    QString mainNibName() const override { return QStringLiteral("Recording"); }
    void mainViewDidLoad() override { calls << QStringLiteral("load"); }
    void didSelect() override { calls << QStringLiteral("select"); }
    void didUnselect() override { calls << QStringLiteral("unselect"); }
    QStringList calls;

protected:
    QWidget *buildMainView() override { return new QWidget; }
};

} // namespace

class TestHostWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lifecycleFollowsTheWindow_data();
    void lifecycleFollowsTheWindow();
};

void TestHostWindow::lifecycleFollowsTheWindow_data()
{
    QTest::addColumn<QString>("action");
    QTest::addColumn<QStringList>("calls");
    QTest::newRow("shown") << "show" << QStringList{QStringLiteral("load"), QStringLiteral("select")};
    QTest::newRow("hidden") << "hide"
                            << QStringList{QStringLiteral("load"), QStringLiteral("select"),
                                           QStringLiteral("unselect")};
    QTest::newRow("minimised") << "minimise"
                               << QStringList{QStringLiteral("load"), QStringLiteral("select"),
                                              QStringLiteral("unselect")};
    QTest::newRow("restored") << "restore"
                              << QStringList{QStringLiteral("load"), QStringLiteral("select"),
                                             QStringLiteral("unselect"), QStringLiteral("select")};
    QTest::newRow("shown twice") << "show twice" << QStringList{QStringLiteral("load"), QStringLiteral("select")};
}

void TestHostWindow::lifecycleFollowsTheWindow()
{
    QFETCH(QString, action);
    QFETCH(QStringList, calls);
    RecordingPane pane;
    HostWindow window;
    pane.initWithBundle(nullptr, &window);
    window.showPane(&pane);
    QCOMPARE(pane.calls, QStringList{QStringLiteral("load")}); // loaded once, before it is shown
    window.show();
    if (action == QLatin1String("show twice"))
        window.show();
    if (action == QLatin1String("hide"))
        window.hide();
    if (action == QLatin1String("minimise") || action == QLatin1String("restore"))
        window.setWindowState(Qt::WindowMinimized);
    if (action == QLatin1String("restore"))
        window.setWindowState(Qt::WindowNoState);
    QCOMPARE(pane.calls, calls);
}

QTEST_MAIN(TestHostWindow)
#include "tst_hostwindow.moc"
