// The history controller made while its store cannot be: once per process, so a suite of its own.

#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "common/VTUtil.h"
#include "platform/Bundle.h"
#include "prefpane/HistoryArrayModel.h"
#include "prefpane/VTHistoryController.h"

#include <QFileInfo>
#include <QTest>

using namespace Qt::StringLiterals;

class TestUnattachableStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void twoErrorsPerRequestThenRetried()
    {
        QVERIFY(Bundle::bundleWithPath(TestEnvironment::paneBundle()));
        // A plain file where the product folder should be: the store cannot be made under it.
        TestEnvironment::writeFile(m_env.productFolder(), "in the way");
        QVERIFY(VTHistoryController::create());
        QVERIFY(!VTHistoryController::create());
        // The errors' texts are the store suites'.
        QCOMPARE(m_alerts.errors.size(), 2);
        VTHistoryController *controller = VTHistoryController::sharedHistoryController();
        QCOMPARE(controller->totalSavings(), quint64(0));
        QCOMPARE(controller->historyArray()->rowCount(), 0);
        QVERIFY(!controller->folders());

        QVERIFY(!controller->managedObjectContext());
        QCOMPARE(m_alerts.errors.size(), 4);

        // Once the folder can be made, the next request attaches a new store.
        QFile::remove(m_env.productFolder());
        VTUtil::forgetApplicationSupportFolder();
        m_alerts.clear();
        QVERIFY(controller->managedObjectContext());
        QVERIFY(m_alerts.errors.isEmpty());
        const QString store = m_env.productFolder() + u"/history.db"_s;
        QVERIFY(TestEnvironment::sqlite(store, u".schema ZHISTORY"_s).contains("ZSAVINGS INTEGER NOT NULL"_L1));
        QCOMPARE(QFileInfo(store).permissions() & 0x0077, QFileDevice::Permissions());
    }

private:
    TestEnvironment m_env;
    RecordingAlerts m_alerts;
};

QTEST_MAIN(TestUnattachableStore)
#include "tst_unattachablestore.moc"
