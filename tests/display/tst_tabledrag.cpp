// Real drags on a real X display, the pointer moved by xdotool between the table and another application.
#include "FakeWorkspace.h"
#include "NotificationRecorder.h"
#include "PaneFixture.h"
#include "RecordingAlerts.h"
#include "prefpane/QFTableView.h"
#include "prefpane/VTHistoryController.h"

#include <QAbstractItemModel>
#include <QApplication>
#include <QDir>
#include <QProcess>
#include <QTest>
#include <QUrl>

using namespace Qt::StringLiterals;

namespace {

const QString kFolders = u"com.quillfen.vantor.folders"_s;

// The other application (dnd-peer) in the display's top left corner, ended with this object.
class Peer
{
public:
    static constexpr QPoint kCentre{100, 100};

    explicit Peer(const QStringList &paths = {})
    {
        m_process.start(QStringLiteral(VANTOR_DND_PEER), QStringList{u"20"_s, u"20"_s, u"160"_s, u"160"_s} + paths);
        started = m_process.waitForStarted() && waitForLine("ready").has_value();
    }
    std::optional<QByteArray> waitForLine(const QByteArray &prefix)
    {
        while (QTest::qWaitFor([this] { return m_process.canReadLine(); }, 15000)) {
            if (const QByteArray line = m_process.readLine().trimmed(); line.startsWith(prefix))
                return line;
        }
        return std::nullopt;
    }

    bool started = false;

private:
    QProcess m_process;
};

// Press at the first point, pass through the others in steps both applications see, release at the last.
bool playGesture(const QList<QPoint> &points)
{
    QStringList arguments;
    const auto move = [&](QPoint p) {
        arguments << u"mousemove"_s << QString::number(p.x()) << QString::number(p.y()) << u"sleep"_s << u"0.15"_s;
    };
    move(points.first());
    arguments << u"mousedown"_s << u"1"_s << u"sleep"_s << u"0.3"_s;
    for (qsizetype i = 1; i < points.size(); ++i) {
        for (int step = 1; step <= 6; ++step)
            move(points.at(i - 1) + (points.at(i) - points.at(i - 1)) * step / 6);
        arguments << u"sleep"_s << u"0.3"_s;
    }
    QProcess xdotool;
    xdotool.start(u"xdotool"_s, arguments << u"mouseup"_s << u"1"_s);
    const bool ended = QTest::qWaitFor([&] { return xdotool.state() == QProcess::NotRunning; }, 30000);
    QTest::qWait(300);
    return ended && xdotool.exitStatus() == QProcess::NormalExit && xdotool.exitCode() == 0;
}

} // namespace

class TestTableDrag : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    // The helper is not started: what reaches it is seen on the bus.
    FakeWorkspace m_workspace;
    RecordingAlerts m_alerts;
    PaneFixture m_ui;
    QStringList m_listed;

    QFTableView *table() const { return m_ui.pane.foldersTableView; }
    QPoint rowCentre(int row) const
    {
        return table()->viewport()->mapToGlobal(table()->visualRect(table()->model()->index(row, 0)).center());
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QGuiApplication::platformName() == u"xcb", "needs a real X display");
        m_ui.pane.mainViewDidLoad();
        for (int i = 0; i < 3; ++i) {
            m_listed << m_env.home() + u"/Listed %1"_s.arg(i);
            QVERIFY(QDir().mkpath(m_listed.last()));
            TestEnvironment::sqlite(m_env.productFolder() + u"/history.db"_s,
                                    u"INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) "
                                    "VALUES ('%1', 100, %2, 1)"_s.arg(m_listed.last())
                                        .arg(i + 1));
        }
        VTHistoryController::sharedHistoryController()->updatePreviousSavings();
        QCOMPARE(table()->model()->rowCount(), 3);
        // Right of the other application's window, on an X server with no window manager.
        m_ui.window.setGeometry(240, 20, 780, 480);
        QVERIFY(QTest::qWaitForWindowExposed(&m_ui.window));
    }

    void rowsDraggedOut_data()
    {
        QTest::addColumn<bool>("back");
        QTest::newRow("dropped on another application") << false;
        QTest::newRow("brought back to the table") << true;
    }

    // Dropped elsewhere, a row is a folder; brought back, the table refuses it: nothing asked
    // of the helper, no row added.
    void rowsDraggedOut()
    {
        QFETCH(bool, back);
        Peer peer;
        QVERIFY(peer.started);
        table()->selectRow(1);
        NotificationRecorder recorder;
        QVERIFY(
            playGesture(back ? QList{rowCentre(1), Peer::kCentre, rowCentre(2)} : QList{rowCentre(1), Peer::kCentre}));

        if (!back)
            QCOMPARE(peer.waitForLine("dropped"), "dropped " + QUrl::fromLocalFile(m_listed[1]).toEncoded());
        QVERIFY(!table()->isDropTarget());
        recorder.settle();
        QCOMPARE(recorder.count(kFolders), 0);
        QCOMPARE(table()->model()->rowCount(), 3);
    }

    void dropsFromAnotherApplication()
    {
        const QStringList dragged{m_env.home() + u"/New A"_s, m_env.home() + u"/notes.txt"_s,
                                  m_env.home() + u"/New \"B\""_s};
        TestEnvironment::writeFile(dragged[1], "notes");
        QVERIFY(QDir().mkpath(dragged[0]) && QDir().mkpath(dragged[2]));
        Peer peer(dragged);
        QVERIFY(peer.started);
        NotificationRecorder recorder;

        QVERIFY(playGesture({Peer::kCentre, rowCentre(0)}));
        QCOMPARE(peer.waitForLine("result"), QByteArray("result copy"));
        QVERIFY(!table()->isDropTarget());
        QVERIFY(recorder.waitFor(kFolders));
        QCOMPARE(recorder.userInfo(kFolders).value(u"foldersToAdd"_s), QVariant(QStringList{dragged[0], dragged[2]}));
    }
};

QTEST_MAIN(TestTableDrag)
#include "tst_tabledrag.moc"
