// Real drags on a real X display: the pointer is moved by the X server's test extension
// (xdotool), between the pane's table and another application, as a person would.
#include "platform/Bundle.h"
#include "FakePaneHost.h"
#include "FakeWorkspace.h"
#include "NotificationRecorder.h"
#include "prefpane/QFTableView.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "prefpane/VTHistoryController.h"
#include "prefpane/VantorPref.h"

#include <QAbstractItemModel>
#include <QApplication>
#include <QDir>
#include <QDropEvent>
#include <QProcess>
#include <QTest>
#include <QUrl>

namespace {

const QString kFolders = QStringLiteral("com.quillfen.vantor.folders");

// Sits between the table and the pane to see what the pane answered; the answers are the pane's.
class WatchingDataSource : public QFTableViewDataSource
{
public:
    explicit WatchingDataSource(QFTableViewDataSource *pane) : m_pane(pane) {}
    void reset()
    {
        validated = Qt::IgnoreAction;
        drops = 0;
        fromTable = accepted = false;
    }

    Qt::DropAction tableViewValidateDrop(QFTableView *table, const QDropEvent *info, int row,
                                         DropOperation operation) override
    {
        validated = m_pane->tableViewValidateDrop(table, info, row, operation);
        return validated;
    }
    bool tableViewAcceptDrop(QFTableView *table, const QDropEvent *info, int row, DropOperation operation) override
    {
        ++drops;
        fromTable = info->source() == table || info->source() == table->viewport();
        accepted = m_pane->tableViewAcceptDrop(table, info, row, operation);
        return accepted;
    }

    Qt::DropAction validated = Qt::IgnoreAction;
    int drops = 0;
    bool fromTable = false;
    bool accepted = false;

private:
    QFTableViewDataSource *m_pane;
};

// The other application: a drag source of the paths it is given and a drop target.
class Peer
{
public:
    static constexpr QPoint kOrigin{20, 20};
    static constexpr QSize kSize{160, 160};

    explicit Peer(const QList<QByteArray> &paths = {})
    {
        QStringList arguments{QString::number(kOrigin.x()), QString::number(kOrigin.y()),
                              QString::number(kSize.width()), QString::number(kSize.height())};
        for (const QByteArray &path : paths)
            arguments.append(QFile::decodeName(path));
        m_process.start(QStringLiteral(VANTOR_DND_PEER), arguments);
        started = m_process.waitForStarted() && waitForLine("ready").has_value();
    }
    ~Peer()
    {
        m_process.kill();
        m_process.waitForFinished();
    }

    static QPoint centre() { return kOrigin + QPoint(kSize.width() / 2, kSize.height() / 2); }

    // The first line starting with `prefix`, read while this process keeps handling events.
    std::optional<QByteArray> waitForLine(const QByteArray &prefix, int timeoutMs = 15000)
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < timeoutMs) {
            while (m_process.canReadLine()) {
                const QByteArray line = m_process.readLine().trimmed();
                if (line.startsWith(prefix))
                    return line;
            }
            QTest::qWait(20);
        }
        return std::nullopt;
    }

    bool started = false;

private:
    QProcess m_process;
};

// Drives the real pointer: press at the first point, pass through the others, release at the last.
class PointerGesture
{
public:
    explicit PointerGesture(const QList<QPoint> &points, int pauseAtEndMs = 0)
    {
        QStringList arguments;
        const auto move = [&](QPoint p) {
            arguments << QStringLiteral("mousemove") << QString::number(p.x()) << QString::number(p.y())
                      << QStringLiteral("sleep") << QStringLiteral("0.15");
        };
        move(points.first());
        arguments << QStringLiteral("mousedown") << QStringLiteral("1") << QStringLiteral("sleep")
                  << QStringLiteral("0.3");
        for (qsizetype i = 1; i < points.size(); ++i) {
            // In steps, so both applications see the pointer travel.
            const QPoint from = points.at(i - 1), to = points.at(i);
            for (int step = 1; step <= 6; ++step)
                move(from + (to - from) * step / 6);
            arguments << QStringLiteral("sleep") << QStringLiteral("0.3");
        }
        if (pauseAtEndMs > 0)
            arguments << QStringLiteral("sleep") << QString::number(pauseAtEndMs / 1000.0);
        arguments << QStringLiteral("mouseup") << QStringLiteral("1");
        m_process.start(QStringLiteral("xdotool"), arguments);
        m_process.waitForStarted();
    }
    // Lets this process handle its events until the gesture has been played.
    bool finish()
    {
        if (!QTest::qWaitFor([this] { return m_process.state() == QProcess::NotRunning; }, 30000))
            return false;
        QTest::qWait(300);
        return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
    }
    bool running() const { return m_process.state() != QProcess::NotRunning; }

private:
    QProcess m_process;
};

} // namespace

class TestTableDrag : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    // The helper is not started: what reaches it is seen on the bus.
    FakeWorkspace m_workspace;
    RecordingAlerts m_alerts;
    FakePaneHost m_host;
    VantorPref m_pane;
    std::unique_ptr<WatchingDataSource> m_watch;
    QByteArray m_listed[3];

    QFTableView *table() const { return m_pane.foldersTableView; }
    QPoint rowCentre(int row) const
    {
        const QRect rect = table()->visualRect(table()->model()->index(row, 0));
        return table()->viewport()->mapToGlobal(rect.center());
    }
    // On the line between two rows, where a row drop would be proposed above the lower one.
    QPoint betweenRows(int upper) const
    {
        const QRect rect = table()->visualRect(table()->model()->index(upper, 1));
        return table()->viewport()->mapToGlobal(QPoint(rect.center().x(), rect.bottom()));
    }
    int rowCount() const { return table()->model()->rowCount(); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QGuiApplication::platformName() == QLatin1String("xcb"), "needs a real X display");
        Bundle *bundle = Bundle::bundleWithPath(TestEnvironment::paneBundle());
        QVERIFY(bundle);
        m_pane.initWithBundle(bundle, &m_host);
        m_host.window = m_pane.loadMainView();
        QVERIFY(m_host.window);
        m_pane.mainViewDidLoad();

        const QByteArray home = QFile::encodeName(m_env.home());
        QString values;
        for (int i = 0; i < 3; ++i) {
            m_listed[i] = home + "/Listed " + QByteArray::number(i);
            QVERIFY(QDir().mkpath(QFile::decodeName(m_listed[i])));
            values += QStringLiteral("%1('%2', 100, %3, 1)").arg(i ? "," : "", QFile::decodeName(m_listed[i])).arg(i + 1);
        }
        QCOMPARE(QProcess::execute(QStringLiteral("sqlite3"),
                                   {m_env.productFolder() + QStringLiteral("/history.db"),
                                    QStringLiteral("INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) "
                                                   "VALUES %1;").arg(values)}),
                 0);
        VTHistoryController::sharedHistoryController()->updatePreviousSavings();
        QCOMPARE(rowCount(), 3);

        m_watch = std::make_unique<WatchingDataSource>(&m_pane);
        table()->setDataSource(m_watch.get());

        // Right of the other application's window, on an X server with no window manager.
        m_host.window->setGeometry(240, 20, 720, 480);
        m_host.window->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_host.window));
    }

    void init()
    {
        m_watch->reset();
        table()->clearSelection();
    }

    void rowsDraggedOutAndBackAreRefused()
    {
        Peer peer;
        QVERIFY(peer.started);
        table()->selectRow(0);
        NotificationRecorder recorder;

        PointerGesture gesture({rowCentre(0), Peer::centre(), rowCentre(2)});
        QVERIFY(gesture.finish());

        // The drop reached the table from the table itself, showing as a copy of folders,
        // and was refused: nothing asked of the helper, no row added.
        QCOMPARE(m_watch->drops, 1);
        QVERIFY(m_watch->fromTable);
        QCOMPARE(m_watch->validated, Qt::CopyAction);
        QVERIFY(!m_watch->accepted);
        QVERIFY(!table()->isDropTarget());
        recorder.settle();
        QCOMPARE(recorder.count(kFolders), 0);
        QCOMPARE(rowCount(), 3);
    }

    void rowsDragOutAsFolders()
    {
        Peer peer;
        QVERIFY(peer.started);
        table()->selectRow(1);
        PointerGesture gesture({rowCentre(1), Peer::centre()});
        QVERIFY(gesture.finish());
        const std::optional<QByteArray> dropped = peer.waitForLine("dropped");
        QVERIFY(dropped);
        QCOMPARE(*dropped, "dropped " + QUrl::fromLocalFile(QFile::decodeName(m_listed[1])).toEncoded());
        QCOMPARE(m_watch->drops, 0);
        QCOMPARE(rowCount(), 3);
    }

    void dropsFromAnotherApplication_data()
    {
        QTest::addColumn<QList<QByteArray>>("dragged");
        QTest::addColumn<QByteArray>("result");
        QTest::addColumn<int>("added");

        const QByteArray home = QFile::encodeName(m_env.home());
        QTest::newRow("two folders and a file")
            << QList<QByteArray>{home + "/New A", home + "/notes.txt", home + "/New \"B\""}
            << QByteArray("result copy") << 2;
        QTest::newRow("only files") << QList<QByteArray>{home + "/notes.txt"} << QByteArray("result ignore") << 0;
    }
    void dropsFromAnotherApplication()
    {
        QFETCH(QList<QByteArray>, dragged);
        QFETCH(QByteArray, result);
        QFETCH(int, added);
        QStringList folders;
        for (const QByteArray &path : dragged) {
            if (path.endsWith(".txt")) {
                TestEnvironment::writeFile(QFile::decodeName(path), "notes");
            } else {
                QVERIFY(QDir().mkpath(QFile::decodeName(path)));
                folders.append(QFile::decodeName(path));
            }
        }
        Peer peer(dragged);
        QVERIFY(peer.started);
        NotificationRecorder recorder;

        // Held between the first and second rows long enough to look at the table.
        PointerGesture gesture({Peer::centre(), betweenRows(0)}, 1500);
        if (added) {
            QTRY_VERIFY_WITH_TIMEOUT(table()->isDropTarget() || !gesture.running(), 20000);
            QVERIFY(table()->isDropTarget());
            QCOMPARE(table()->dropRow(), -1);
            QCOMPARE(table()->dropOperation(), QFTableViewDataSource::DropOn);
        }
        QVERIFY(gesture.finish());

        const std::optional<QByteArray> line = peer.waitForLine("result");
        QVERIFY(line);
        QCOMPARE(*line, result);
        QCOMPARE(m_watch->drops, added ? 1 : 0);
        QVERIFY(!table()->isDropTarget());
        if (added) {
            QVERIFY(recorder.waitFor(kFolders));
            QCOMPARE(recorder.userInfos().at(recorder.names().indexOf(kFolders)).value("foldersToAdd").toStringList(),
                     folders);
        } else {
            recorder.settle();
            QCOMPARE(recorder.count(kFolders), 0);
        }
    }
};

QTEST_MAIN(TestTableDrag)
#include "tst_tabledrag.moc"
