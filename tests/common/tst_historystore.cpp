#include "common/HistoryStore.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "common/VTUtil.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

class TestHistoryStore : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    RecordingAlerts m_alerts;

    QString storePath() const { return m_env.productFolder() + QStringLiteral("/history.db"); }

    static QString sqlite(const QString &path, const QString &sql)
    {
        return TestEnvironment::sqlite(path, sql);
    }

    // Many rows spread the table over many pages; the schema stays on page one.
    void makeDatabase(const QString &path)
    {
        sqlite(path, QStringLiteral("CREATE TABLE t(x TEXT);"
                                    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<2000) "
                                    "INSERT INTO t SELECT printf('%0100d', i) FROM n;"));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(!VTUtil::applicationSupportFolder().isEmpty());
    }

    void init()
    {
        m_alerts.clear();
        QFile::remove(storePath());
    }

    void integrity_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<bool>("sound");
        QTest::newRow("no file") << "absent" << true;
        QTest::newRow("sound database") << "database" << true;
        QTest::newRow("damaged pages, readable schema") << "damaged" << true;
        QTest::newRow("text file") << "text" << false;
        QTest::newRow("empty file") << "empty" << true;
    }
    void integrity()
    {
        QFETCH(QString, kind);
        QFETCH(bool, sound);
        const QString path = storePath();
        if (kind == QLatin1String("database") || kind == QLatin1String("damaged"))
            makeDatabase(path);
        if (kind == QLatin1String("damaged")) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadWrite));
            file.seek(4096 * 10);
            file.write(QByteArray(4096 * 3, '\xA5'));
            file.close();
            QVERIFY(sqlite(path, QStringLiteral("PRAGMA integrity_check;")) != QLatin1String("ok"));
        }
        if (kind == QLatin1String("text"))
            TestEnvironment::writeFile(path, "folders: none\n");
        if (kind == QLatin1String("empty"))
            TestEnvironment::writeFile(path, {});
        const QStringList before = QDir(m_env.productFolder()).entryList(QDir::Files);

        QCOMPARE(VTUtil::ensureIntegrityOfDatabaseAtPath(path), sound);

        if (sound) {
            QVERIFY(m_alerts.modals.isEmpty());
            // The check creates nothing.
            QCOMPARE(QDir(m_env.productFolder()).entryList(QDir::Files).contains(QStringLiteral("history.db")),
                     before.contains(QStringLiteral("history.db")));
        } else {
            QCOMPARE(m_alerts.modals.size(), 1);
            QCOMPARE(m_alerts.modals.first().messageText, QStringLiteral("Vantor Database Error"));
            QCOMPARE(m_alerts.modals.first().informativeText,
                     QStringLiteral("Vantor database is corrupt, and recovery attempts did not succeed.\n\nA new "
                                    "empty database will be created now. Please note you will lose your configured "
                                    "folders and savings history."));
            QCOMPARE(m_alerts.modals.first().buttons, QStringList{QStringLiteral("OK")});
            QVERIFY(!QFileInfo::exists(path));
        }
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
        QCOMPARE(m_alerts.errors.first().failureReason, QStringLiteral("There was an error building up the data file."));
        QVERIFY(!QFileInfo::exists(storePath()));

        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(QStringLiteral("Managed object model is nil")));
        QTest::ignoreMessage(QtWarningMsg, "VTUtil:persistentStoreCoordinator No model to generate a store from");
        QVERIFY(!VTUtil::managedObjectContext());
        QCOMPARE(m_alerts.errors.size(), 2);
    }
};

QTEST_GUILESS_MAIN(TestHistoryStore)
#include "tst_historystore.moc"
