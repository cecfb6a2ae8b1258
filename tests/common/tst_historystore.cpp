#include "common/HistoryStore.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "common/VTUtil.h"

#include <QFileInfo>
#include <QTest>

using namespace Qt::StringLiterals;

class TestHistoryStore : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    RecordingAlerts m_alerts;

private Q_SLOTS:
    // This process's main bundle (the test's folder) carries no model: every request fails
    // with the error, and no store is made.
    void missingModelFailsEveryRequest()
    {
        QVERIFY(!VTUtil::applicationSupportFolder().isEmpty());
        for (int request = 1; request <= 2; ++request) {
            QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(u"Managed object model is nil"_s));
            QTest::ignoreMessage(QtWarningMsg, "VTUtil:persistentStoreCoordinator No model to generate a store from");
            QVERIFY(!VTUtil::managedObjectContext());
            QCOMPARE(m_alerts.errors.size(), request);
        }
        const PresentableError &error = m_alerts.errors.first();
        QCOMPARE(error.domain, u"com.quillfen.vantor.error"_s);
        QCOMPARE(error.code, 9999);
        QCOMPARE(error.localizedDescription, u"Failed to initialize the store"_s);
        QCOMPARE(error.failureReason, u"There was an error building up the data file."_s);
        QVERIFY(!QFileInfo::exists(m_env.productFolder() + u"/history.db"_s));
    }
};

QTEST_GUILESS_MAIN(TestHistoryStore)
#include "tst_historystore.moc"
