#include "prefpane/ArrayController.h"
#include "platform/Bundle.h"
#include "prefpane/HistoryArrayModel.h"
#include "NotificationRecorder.h"
#include "prefpane/QFTableView.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "prefpane/VTHistoryController.h"
#include "common/VTUtil.h"

#include <QApplication>
#include <QFileInfo>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

class TestHistoryController : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    QFTableView m_table;

    QString sqlite(const QString &sql) const
    {
        return TestEnvironment::sqlite(m_env.productFolder() + QStringLiteral("/history.db"), sql);
    }

    // Another program tells the pane that savings changed.
    void refreshFromAnotherProgram()
    {
        QSignalSpy spy(controller(), &VTHistoryController::totalSavingsChanged);
        TestEnvironment::postWithGdbus(QStringLiteral("vantorSavingsChanged"), QStringLiteral("{'from': <'gdbus'>}"));
        QVERIFY(spy.wait(5000));
    }

    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(Bundle::bundleWithPath(TestEnvironment::paneBundle()));
        QVERIFY(VTHistoryController::create());
        QVERIFY(controller()->managedObjectContext());
        controller()->awakeFromNib(&m_table);
        QCOMPARE(m_table.model(), controller()->foldersArrayController());
    }

    // Every case starts from the same three records, shown through another program's notification.
    void init()
    {
        sqlite(QStringLiteral("DELETE FROM ZHISTORY;"));
        controller()->updatePreviousSavings();
        controller()->foldersArrayController()->setSelectionIndexes({});
        sqlite(QStringLiteral("INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) VALUES "
                              "('/home/u/Music', 40, 1000, 1), ('/home/u/Documents', 100, 2048, 1), "
                              "('/home/u/Old', 100, 5, 0);"));
        refreshFromAnotherProgram();
        m_alerts.clear();
    }

    // Where the summary row sorts is the sort descriptor's suite.
    void recordsFromAnotherProcess()
    {
        m_table.sortByColumn(0, Qt::DescendingOrder); // Music, Documents, Other
        QCOMPARE(controller()->totalSavings(), quint64(3053));
        QCOMPARE(controller()->previousSavings(), quint64(5));
        auto *arranged = controller()->foldersArrayController();
        const QList<QVariantMap> rows = arranged->arrangedObjects();
        QCOMPARE(rows.size(), 3);
        QCOMPARE(rows.at(0).value(QStringLiteral("folder")).toString(), QStringLiteral("/home/u/Music"));
        QCOMPARE(rows.at(0).value(QStringLiteral("savings")).toULongLong(), quint64(1000));
        QCOMPARE(rows.last(), controller()->historyEntryForSavings(5));
        // The summary row is disabled and cannot be selected; folder rows can.
        QCOMPARE(arranged->flags(arranged->index(2, 0)) & (Qt::ItemIsSelectable | Qt::ItemIsEnabled), Qt::NoItemFlags);

        // The selection survives a refresh that keeps the count.
        arranged->setSelectionIndexes({1});
        // -1 as stored is 2^64 - 1: with the other 1005 bytes the total wraps to 1004.
        sqlite(QStringLiteral("UPDATE ZHISTORY SET ZSAVINGS = -1 WHERE ZFOLDER = '/home/u/Documents';"));
        refreshFromAnotherProgram();
        QCOMPARE(controller()->totalSavings(), quint64(1004));
        QCOMPARE(arranged->selectionIndexes(), QList<int>{1});

        // The summary row goes: the count changes and the selection is not restored.
        sqlite(QStringLiteral("UPDATE ZHISTORY SET ZSAVINGS = 0 WHERE ZENABLED = 0;"));
        refreshFromAnotherProgram();
        QCOMPARE(arranged->rowCount(), 2);
        QVERIFY(arranged->selectionIndexes().isEmpty());
        // With no previous savings the last row is an ordinary, selectable row.
        QVERIFY(arranged->flags(arranged->index(1, 0)) & Qt::ItemIsSelectable);
    }

    void addFolders_data()
    {
        QTest::addColumn<QStringList>("paths");
        QTest::addColumn<QStringList>("posted"); // empty: nothing posted
        QTest::addColumn<int>("sheets");
        QTest::newRow("empty") << QStringList() << QStringList() << 0;
        QTest::newRow("only volumes") << QStringList{QStringLiteral("/Volumes/Disk/a"), QStringLiteral("/Volumes/B")}
                                      << QStringList() << 1;
        QTest::newRow("mix keeps order and duplicates")
            << QStringList{QStringLiteral("/home/u/b"), QStringLiteral("/Volumes/Disk/x"), QStringLiteral("/home/u/a"),
                           QStringLiteral("/home/u/b"), QStringLiteral("/Volumes")}
            << QStringList{QStringLiteral("/home/u/b"), QStringLiteral("/home/u/a"), QStringLiteral("/home/u/b"),
                           QStringLiteral("/Volumes")}
            << 1;
        QTest::newRow("case-sensitive prefix")
            << QStringList{QStringLiteral("/volumes/x")} << QStringList{QStringLiteral("/volumes/x")} << 0;
    }
    void addFolders()
    {
        QFETCH(QStringList, paths);
        QFETCH(QStringList, posted);
        QFETCH(int, sheets);
        NotificationRecorder recorder;
        m_alerts.clear();
        controller()->addFolders(paths);
        QVERIFY(m_alerts.sheets.isEmpty()); // the sheet comes a moment later
        QTest::qWait(100);
        recorder.settle();
        QCOMPARE(m_alerts.sheets.size(), sheets);
        if (sheets) {
            QCOMPARE(m_alerts.sheets.first().messageText, QStringLiteral("Filtered out folders"));
            QCOMPARE(m_alerts.sheets.first().informativeText,
                     QStringLiteral("Some of the folders you tried to add, were located in volumes different than "
                                    "main, and were removed."));
        }
        QCOMPARE(recorder.count(QStringLiteral("com.quillfen.vantor.folders")), posted.isEmpty() ? 0 : 1);
        if (!posted.isEmpty())
            QCOMPARE(recorder.userInfos().first().value(QStringLiteral("foldersToAdd")).toStringList(), posted);
    }

    // A damaged store is replaced (the damaged-history suite); a busy one is not damaged.
    void storeAnotherProcessIsWritingIsKept()
    {
        // Beside the controller's store, which stays open.
        const QString path = m_env.productFolder() + QStringLiteral("/other.db");
        TestEnvironment::sqlite(path, QStringLiteral("CREATE TABLE t(x);"));
        QProcess writer;
        writer.start(
            QStringLiteral("python3"),
            {QStringLiteral("-c"),
             QStringLiteral("import sqlite3, sys, time; c = sqlite3.connect(sys.argv[1], isolation_level=None); "
                            "c.execute('BEGIN EXCLUSIVE'); print(flush=True); time.sleep(1); c.execute('COMMIT')"),
             path});
        QVERIFY(writer.waitForReadyRead(10000));
        QVERIFY(VTUtil::ensureIntegrityOfDatabaseAtPath(path));
        QVERIFY(m_alerts.modals.isEmpty());
        QVERIFY(QFileInfo::exists(path));
        writer.waitForFinished();
    }
};

QTEST_MAIN(TestHistoryController)
#include "tst_historycontroller.moc"
