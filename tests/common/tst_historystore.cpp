#include "common/HistoryStore.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "common/VTUtil.h"

#include <QDir>
#include <QFileInfo>
#include <QTest>

class TestHistoryStore : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    RecordingAlerts m_alerts;

    QString storePath() const { return m_env.productFolder() + QStringLiteral("/history.db"); }

private Q_SLOTS:
    void initTestCase() { QVERIFY(!VTUtil::applicationSupportFolder().isEmpty()); }

    void init()
    {
        m_alerts.clear();
        QFile::remove(storePath());
    }

    // This process's main bundle (the test's folder) carries no model.
    void missingModelFailsEveryRequest()
    {
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(QStringLiteral("Managed object model is nil")));
        QTest::ignoreMessage(QtWarningMsg, "VTUtil:persistentStoreCoordinator No model to generate a store from");
        QVERIFY(!VTUtil::managedObjectContext());
        QCOMPARE(m_alerts.errors.size(), 1);
        QCOMPARE(m_alerts.errors.first().domain, QStringLiteral("com.quillfen.vantor.error"));
        QCOMPARE(m_alerts.errors.first().code, 9999);
        QCOMPARE(m_alerts.errors.first().localizedDescription, QStringLiteral("Failed to initialize the store"));
        QCOMPARE(m_alerts.errors.first().failureReason,
                 QStringLiteral("There was an error building up the data file."));
        QVERIFY(!QFileInfo::exists(storePath()));

        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(QStringLiteral("Managed object model is nil")));
        QTest::ignoreMessage(QtWarningMsg, "VTUtil:persistentStoreCoordinator No model to generate a store from");
        QVERIFY(!VTUtil::managedObjectContext());
        QCOMPARE(m_alerts.errors.size(), 2);
    }
};

QTEST_GUILESS_MAIN(TestHistoryStore)
#include "tst_historystore.moc"
