// The pane's history controller reading while another process writes the store: every
// refresh is one consistent picture, no error reaches the user, and a writer killed inside
// a transaction leaves a store the pane reads.
#include "prefpane/ArrayController.h"
#include "platform/Bundle.h"
#include "prefpane/HistoryArrayModel.h"
#include "prefpane/QFTableView.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "prefpane/VTHistoryController.h"

#include <QApplication>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <csignal>

class TestHistoryUnderLoad : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void refreshesWhileTheWriterWrites();
    void writerKilledInsideATransaction();

private:
    QString storePath() const { return m_env.productFolder() + QStringLiteral("/history.db"); }
    QString sqlite(const QString &sql) const
    {
        return TestEnvironment::sqlite(storePath(), sql);
    }
    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }
    // What the table shows adds up: rows (summary row included) make the total.
    static QString inconsistency(quint64 expectedTotal);

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    QFTableView m_table;
    static constexpr int kRecords = 200;
    static constexpr quint64 kTotal = kRecords * quint64(1000000);
};

QString TestHistoryUnderLoad::inconsistency(quint64 expectedTotal)
{
    quint64 rows = 0;
    quint64 summary = 0;
    for (const QVariantMap &row : controller()->foldersArrayController()->arrangedObjects()) {
        rows += row.value(QStringLiteral("savings")).toULongLong();
        if (row.value(QStringLiteral("sortID")).toInt() == 1)
            summary = row.value(QStringLiteral("savings")).toULongLong();
    }
    if (controller()->totalSavings() != expectedTotal)
        return QStringLiteral("total %1, expected %2").arg(controller()->totalSavings()).arg(expectedTotal);
    if (rows != controller()->totalSavings())
        return QStringLiteral("rows add up to %1, total is %2").arg(rows).arg(controller()->totalSavings());
    if (summary != controller()->previousSavings())
        return QStringLiteral("summary row %1, previous savings %2").arg(summary).arg(controller()->previousSavings());
    return {};
}

void TestHistoryUnderLoad::initTestCase()
{
    QVERIFY(Bundle::bundleWithPath(TestEnvironment::paneBundle()));
    QVERIFY(VTHistoryController::create());
    controller()->awakeFromNib(&m_table);
    m_table.show();
    // Half the folders listed, half gone to the summary row; the writer keeps the sum.
    sqlite(QStringLiteral("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<%1) "
                          "INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) "
                          "SELECT printf('/home/u/folder %d', i), 0, 1000000, i % 2 FROM n;")
               .arg(kRecords));
    QSignalSpy refreshed(controller(), &VTHistoryController::totalSavingsChanged);
    TestEnvironment::postWithGdbus(QStringLiteral("vantorSavingsChanged"));
    QVERIFY(refreshed.wait(10000));
    QCOMPARE(inconsistency(kTotal), QString());
}

void TestHistoryUnderLoad::refreshesWhileTheWriterWrites()
{
    QSignalSpy refreshed(controller(), &VTHistoryController::totalSavingsChanged);
    QStringList faults;
    // Between two events the controller shows a finished refresh; look at every such moment.
    QTimer idle;
    connect(&idle, &QTimer::timeout, this, [&] {
        const QString fault = inconsistency(kTotal);
        if (!fault.isEmpty() && faults.size() < 5)
            faults << fault;
    });
    idle.start(0);

    QProcess writer;
    writer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    writer.start(QStringLiteral(VANTOR_RELIABILITY_WRITER), {QStringLiteral("history"), storePath(), QStringLiteral("5")});
    QVERIFY(QTest::qWaitFor([&] { return writer.state() == QProcess::NotRunning; }, 60000));
    QCOMPARE(writer.exitCode(), 0);
    QTest::qWait(500); // the last notifications
    idle.stop();

    qInfo("writer: %s; %lld refreshes", writer.readAllStandardOutput().trimmed().constData(),
          static_cast<long long>(refreshed.count()));
    QVERIFY2(faults.isEmpty(), qPrintable(faults.join(QStringLiteral("; "))));
    QVERIFY(refreshed.count() >= 5);
    QVERIFY(m_alerts.modals.isEmpty() && m_alerts.errors.isEmpty() && m_alerts.sheets.isEmpty());
    // The last refresh shows what the store holds.
    QCOMPARE(QString::number(controller()->previousSavings()),
             sqlite(QStringLiteral("SELECT sum(ZSAVINGS) FROM ZHISTORY WHERE ZENABLED = 0")));
}

void TestHistoryUnderLoad::writerKilledInsideATransaction()
{
    const QString before = sqlite(QStringLiteral("SELECT group_concat(ZSAVINGS || ':' || ZENABLED) FROM ZHISTORY"));
    QProcess writer;
    writer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    writer.start(QStringLiteral(VANTOR_RELIABILITY_WRITER), {QStringLiteral("hang"), storePath()});
    QVERIFY(writer.waitForReadyRead(30000));
    QCOMPARE(writer.readAllStandardOutput().trimmed(), QByteArray("in-transaction 0"));
    ::kill(pid_t(writer.processId()), SIGKILL);
    QVERIFY(writer.waitForFinished(10000));

    QSignalSpy refreshed(controller(), &VTHistoryController::totalSavingsChanged);
    TestEnvironment::postWithGdbus(QStringLiteral("vantorSavingsChanged"));
    QVERIFY(refreshed.wait(10000));
    QTest::qWait(100);
    QCOMPARE(inconsistency(kTotal), QString());
    QVERIFY(m_alerts.modals.isEmpty() && m_alerts.errors.isEmpty() && m_alerts.sheets.isEmpty());
    QCOMPARE(sqlite(QStringLiteral("SELECT group_concat(ZSAVINGS || ':' || ZENABLED) FROM ZHISTORY")), before);
    QCOMPARE(sqlite(QStringLiteral("PRAGMA integrity_check")), QStringLiteral("ok"));
}

QTEST_MAIN(TestHistoryUnderLoad)
#include "tst_historyunderload.moc"
