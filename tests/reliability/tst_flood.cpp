// A flood of "vantorSavingsChanged" from a sender of our own: 10,000 in one second. The
// window keeps painting and ends showing the final figures.
#include "prefpane/ArrayController.h"
#include "platform/Bundle.h"
#include "prefpane/QFTableView.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "prefpane/VTHistoryController.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

namespace {

// Times every frame the table's viewport paints.
class FrameClock : public QObject
{
public:
    explicit FrameClock(QWidget *widget) { widget->installEventFilter(this); m_clock.start(); }
    qint64 longestGap() const { return m_longest; }
    int frames() const { return m_frames; }
    void reset() { m_last = -1; m_longest = 0; m_frames = 0; }

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::Paint) {
            const qint64 now = m_clock.elapsed();
            if (m_last >= 0)
                m_longest = std::max(m_longest, now - m_last);
            m_last = now;
            ++m_frames;
        }
        return false;
    }

private:
    QElapsedTimer m_clock;
    qint64 m_last = -1;
    qint64 m_longest = 0;
    int m_frames = 0;
};

} // namespace

class TestFlood : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void floodKeepsTheWindowPainting();

private:
    QString storePath() const { return m_env.productFolder() + QStringLiteral("/history.db"); }

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    QFTableView m_table;
};

void TestFlood::floodKeepsTheWindowPainting()
{
    QVERIFY(Bundle::bundleWithPath(TestEnvironment::paneBundle()));
    auto *controller = VTHistoryController::create();
    QVERIFY(controller);
    controller->awakeFromNib(&m_table);
    m_table.resize(600, 400);
    m_table.show();
    QProcess::execute(QStringLiteral("sqlite3"),
                      {storePath(), QStringLiteral("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<50) "
                                                   "INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) "
                                                   "SELECT printf('/home/u/folder %d', i), 50, 7, i % 5 != 0 FROM n;")});

    // An animation's worth of repaints: a frame is asked for every 10 ms.
    FrameClock frames(m_table.viewport());
    QTimer animation;
    connect(&animation, &QTimer::timeout, m_table.viewport(), qOverload<>(&QWidget::update));
    animation.start(10);
    QTest::qWait(200);
    frames.reset();

    QProcess sender;
    sender.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    sender.start(QStringLiteral(VANTOR_RELIABILITY_WRITER),
                 {QStringLiteral("flood"), storePath(), QStringLiteral("10000"), QStringLiteral("1000")});
    QVERIFY(QTest::qWaitFor([&] { return sender.state() == QProcess::NotRunning; }, 60000));
    QCOMPARE(sender.exitCode(), 0);
    // The final figures: record 1 holds 10,000, the 49 others 7 each.
    const quint64 total = 10000 + 49 * 7;
    QVERIFY(QTest::qWaitFor([&] { return controller->totalSavings() == total; }, 60000));
    QTest::qWait(300);
    animation.stop();

    qInfo("%s; %d frames, longest gap between frames %lld ms",
          sender.readAllStandardOutput().trimmed().constData(), frames.frames(), frames.longestGap());
    QCOMPARE(controller->totalSavings(), total);
    const QList<QVariantMap> rows = controller->foldersArrayController()->arrangedObjects();
    QCOMPARE(rows.size(), 41); // 40 listed folders and the summary row
    QCOMPARE(rows.first().value(QStringLiteral("savings")).toULongLong(), quint64(10000));
    QCOMPARE(controller->previousSavings(), quint64(70));
    QVERIFY(m_alerts.modals.isEmpty() && m_alerts.errors.isEmpty());
    // A generous bound that holds on a loaded machine and under the sanitizers; the README
    // gives the measured figure.
    QVERIFY2(frames.longestGap() < 1000, qPrintable(QString::number(frames.longestGap())));
}

QTEST_MAIN(TestFlood)
#include "tst_flood.moc"
