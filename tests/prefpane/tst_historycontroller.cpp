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
#include <QFile>
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

    QString storePath() const { return m_env.productFolder() + QStringLiteral("/history.db"); }

    QString sqlite(const QString &sql) const
    {
        return TestEnvironment::sqlite(storePath(), sql);
    }

    // Another program tells the pane that savings changed.
    static void emitSavingsChanged()
    {
        TestEnvironment::postWithGdbus(QStringLiteral("vantorSavingsChanged"), QStringLiteral("{'from': <'gdbus'>}"));
    }

    void refreshFromAnotherProgram()
    {
        QSignalSpy spy(VTHistoryController::sharedHistoryController(), &VTHistoryController::totalSavingsChanged);
        emitSavingsChanged();
        QVERIFY(spy.wait(5000));
    }

    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(Bundle::bundleWithPath(TestEnvironment::paneBundle()));
        // A plain file where the product folder should be: the store cannot be made under it.
        TestEnvironment::writeFile(m_env.productFolder(), "in the way");
    }

    // Runs first: the controller is made here and fails to open its store.
    void unattachableStorePresentsTwoErrorsAndRetries()
    {
        QVERIFY(VTHistoryController::create());
        QVERIFY(!VTHistoryController::create());
        QCOMPARE(m_alerts.errors.size(), 2);
        QCOMPARE(m_alerts.errors.at(0).domain, QStringLiteral("org.sqlite"));
        QCOMPARE(m_alerts.errors.at(1).domain, QStringLiteral("com.quillfen.vantor.error"));
        QCOMPARE(m_alerts.errors.at(1).code, 9999);
        QCOMPARE(m_alerts.errors.at(1).localizedDescription, QStringLiteral("Failed to initialize the store"));
        QCOMPARE(controller()->totalSavings(), quint64(0));
        QCOMPARE(controller()->historyArray()->rowCount(), 0);
        QVERIFY(!controller()->folders());

        QVERIFY(!controller()->managedObjectContext());
        QCOMPARE(m_alerts.errors.size(), 4);

        // Once the folder can be made, the next request attaches a new store.
        QFile::remove(m_env.productFolder());
        VTUtil::forgetApplicationSupportFolder();
        m_alerts.clear();
        QVERIFY(controller()->managedObjectContext());
        QVERIFY(m_alerts.errors.isEmpty());
        QVERIFY(sqlite(QStringLiteral(".schema ZHISTORY")).contains(QLatin1String("ZSAVINGS INTEGER NOT NULL")));
        QCOMPARE(QFileInfo(storePath()).permissions() & 0x0077, QFileDevice::Permissions());
        controller()->awakeFromNib(&m_table);
        QCOMPARE(m_table.model(), controller()->foldersArrayController());
        QVERIFY(!controller()->folders());
        QVERIFY(controller()->folderAliases().isEmpty());
    }

    void recordsFromAnotherProcessAreShown()
    {
        sqlite(QStringLiteral("INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) VALUES "
                              "('/home/u/Music', 40, 1000, 1), ('/home/u/Documents', 100, 2048, 1), "
                              "('/home/u/Old', 100, 5, 0);"));
        refreshFromAnotherProgram();
        QCOMPARE(controller()->totalSavings(), quint64(3053));
        QCOMPARE(controller()->previousSavings(), quint64(5));
        const QList<QVariantMap> rows = controller()->foldersArrayController()->arrangedObjects();
        QCOMPARE(rows.size(), 3);
        QCOMPARE(rows.at(0).value("folder").toString(), QStringLiteral("/home/u/Music"));
        QCOMPARE(rows.at(0).value("path").toString(), QStringLiteral("/home/u/Music"));
        QCOMPARE(rows.at(0).value("savings").toULongLong(), quint64(1000));
        QCOMPARE(rows.at(0).value("enabled").toBool(), true);
        QCOMPARE(rows.last(), controller()->historyEntryForSavings(5));
        QCOMPARE(rows.last().value("status").toInt(), 100);
        QVERIFY(!rows.last().contains("enabled"));

        // The summary row is disabled and cannot be selected; folder rows can.
        auto *arranged = controller()->foldersArrayController();
        QVERIFY(!(arranged->flags(arranged->index(2, 0)) & Qt::ItemIsSelectable));
        QVERIFY(!(arranged->flags(arranged->index(2, 0)) & Qt::ItemIsEnabled));
        QVERIFY(arranged->flags(arranged->index(1, 0)) & Qt::ItemIsSelectable);

        // It stays last whichever column sorts, in either direction.
        for (int column = 0; column < 4; ++column) {
            for (Qt::SortOrder order : {Qt::AscendingOrder, Qt::DescendingOrder}) {
                m_table.sortByColumn(column, order);
                QCOMPARE(arranged->arrangedObjects().last().value("sortID").toInt(), 1);
            }
        }
        m_table.sortByColumn(0, Qt::AscendingOrder); // Documents, Music, Other
        QCOMPARE(arranged->arrangedObjects().first().value("folder").toString(), QStringLiteral("/home/u/Documents"));
    }

    void savingsAreUnsignedAndWrap()
    {
        // -1 as stored is 2^64 - 1; with the other 3053 bytes the total wraps to 3052.
        sqlite(QStringLiteral("INSERT INTO ZHISTORY (ZFOLDER, ZSAVINGS, ZENABLED) VALUES ('/home/u/Big', -1, 1);"));
        refreshFromAnotherProgram();
        QCOMPARE(controller()->totalSavings(), quint64(3052));
        sqlite(QStringLiteral("DELETE FROM ZHISTORY WHERE ZFOLDER = '/home/u/Big';"));
        refreshFromAnotherProgram();
        QCOMPARE(controller()->totalSavings(), quint64(3053));
    }

    void selectionSurvivesWhenTheCountIsUnchanged()
    {
        auto *arranged = controller()->foldersArrayController();
        arranged->setSelectionIndexes({1});
        refreshFromAnotherProgram();
        QCOMPARE(arranged->selectionIndexes(), QList<int>{1});

        // The summary row goes: the count changes and the selection is not restored.
        sqlite(QStringLiteral("UPDATE ZHISTORY SET ZSAVINGS = 0 WHERE ZENABLED = 0;"));
        refreshFromAnotherProgram();
        QCOMPARE(arranged->rowCount(), 2);
        QVERIFY(arranged->selectionIndexes().isEmpty());
        // With no previous savings the last row is an ordinary, selectable row.
        QVERIFY(arranged->flags(arranged->index(1, 0)) & Qt::ItemIsSelectable);
    }

    void removeFoldersPostsTheSelectionInArrangedOrder()
    {
        NotificationRecorder recorder;
        auto *arranged = controller()->foldersArrayController();
        arranged->setSelectionIndexes({});
        controller()->tableviewRemoveSelectedRowIndexes(&m_table, {0, 1});
        recorder.settle();
        QCOMPARE(recorder.count(QStringLiteral("com.quillfen.vantor.folders")), 0);

        m_table.sortByColumn(0, Qt::DescendingOrder); // Music, Documents
        arranged->setSelectionIndexes({0, 1});
        controller()->tableviewRemoveSelectedRowIndexes(&m_table, {});
        QVERIFY(recorder.waitFor(QStringLiteral("com.quillfen.vantor.folders")));
        QCOMPARE(recorder.userInfos().last().value("foldersToRemove").toStringList(),
                 (QStringList{QStringLiteral("/home/u/Music"), QStringLiteral("/home/u/Documents")}));
        QVERIFY(arranged->selectionIndexes().isEmpty());
        QCOMPARE(arranged->rowCount(), 2); // rows stay until the helper has acted
    }

    void addFolders_data()
    {
        QTest::addColumn<QStringList>("paths");
        QTest::addColumn<QStringList>("posted"); // empty: nothing posted
        QTest::addColumn<int>("sheets");
        QTest::newRow("empty") << QStringList() << QStringList() << 0;
        QTest::newRow("only volumes") << QStringList{"/Volumes/Disk/a", "/Volumes/B"} << QStringList() << 1;
        QTest::newRow("mix keeps order") << QStringList{"/home/u/b", "/Volumes/Disk/x", "/home/u/a", "/Volumes"}
                                         << QStringList{"/home/u/b", "/home/u/a", "/Volumes"} << 1;
        QTest::newRow("duplicates passed on") << QStringList{"/home/u/a", "/home/u/a", "/Volumes/x", "/Volumes/x"}
                                              << QStringList{"/home/u/a", "/home/u/a"} << 1;
        QTest::newRow("case-sensitive prefix") << QStringList{"/volumes/x"} << QStringList{"/volumes/x"} << 0;
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
            QCOMPARE(recorder.userInfos().first().value("foldersToAdd").toStringList(), posted);
    }

    void textFileIsReplacedByAnEmptyStore()
    {
        // A second stack over the same file, as the helper would build.
        TestEnvironment::writeFile(storePath() + QStringLiteral(".tmp"), "folders: none\n");
        QFile::remove(storePath() + QStringLiteral("-wal"));
        QFile::remove(storePath() + QStringLiteral("-shm"));
        QFile::remove(storePath());
        QFile::rename(storePath() + QStringLiteral(".tmp"), storePath());
        m_alerts.clear();
        QVERIFY(!VTUtil::ensureIntegrityOfDatabaseAtPath(storePath()));
        QCOMPARE(m_alerts.modals.size(), 1);
        QVERIFY(!QFileInfo::exists(storePath()));
    }
};

QTEST_MAIN(TestHistoryController)
#include "tst_historycontroller.moc"
