#include "host/HostWindow.h"
#include "gui/PreferencePane.h"

#include <QApplication>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// Records the lifecycle calls the host makes.
class RecordingPane : public PreferencePane
{
public:
    QString mainNibName() const override { return u"Recording"_s; }
    void mainViewDidLoad() override { calls << u"load"_s; }
    void didSelect() override { calls << u"select"_s; }
    void didUnselect() override { calls << u"unselect"_s; }
    QStringList calls;

protected:
    QWidget *buildMainView() override { return new QWidget; }
};

} // namespace

class TestHostWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lifecycleFollowsTheWindow_data()
    {
        QTest::addColumn<QString>("calls"); // the row's name is what is done to the window
        QTest::newRow("show") << "load select";
        QTest::newRow("hide") << "load select unselect";
        QTest::newRow("minimise") << "load select unselect";
        QTest::newRow("restore") << "load select unselect select";
        QTest::newRow("show twice") << "load select";
    }

    void lifecycleFollowsTheWindow()
    {
        const QLatin1StringView action(QTest::currentDataTag());
        QFETCH(QString, calls);
        RecordingPane pane;
        HostWindow window;
        pane.initWithBundle(nullptr, &window);
        window.showPane(&pane);
        QCOMPARE(pane.calls, QStringList{u"load"_s}); // loaded once, before it is shown
        window.show();
        if (action == "show twice"_L1)
            window.show();
        if (action == "hide"_L1)
            window.hide();
        if (action == "minimise"_L1 || action == "restore"_L1)
            window.setWindowState(Qt::WindowMinimized);
        if (action == "restore"_L1)
            window.setWindowState(Qt::WindowNoState);
        QCOMPARE(pane.calls.join(u' '), calls);
    }
};

QTEST_MAIN(TestHostWindow)
#include "tst_hostwindow.moc"
