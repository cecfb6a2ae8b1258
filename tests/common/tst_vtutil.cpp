#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "common/VTUtil.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;

class TestVTUtil : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        VTUtil::forgetApplicationSupportFolder();
        qputenv("HOME", QFile::encodeName(m_env.home()));
        qputenv("XDG_DATA_HOME", QFile::encodeName(m_env.dataHome()));
        QDir(m_env.productFolder()).removeRecursively();
    }

    void folderLocation_data()
    {
        QTest::addColumn<QByteArray>("xdgDataHome");
        QTest::addColumn<QByteArray>("home");
        QTest::addColumn<QString>("expectedBase"); // relative to the test root

        QTest::newRow("XDG_DATA_HOME") << QByteArray("@/data") << QByteArray("@/home") << "/data";
        QTest::newRow("relative XDG_DATA_HOME is ignored")
            << QByteArray("rel/data") << QByteArray("@/home") << "/home/.local/share";
        QTest::newRow("unset XDG_DATA_HOME") << QByteArray() << QByteArray("@/home") << "/home/.local/share";
        // Neither gives an absolute path: the private temporary folder takes their place.
        QTest::newRow("no home at all") << QByteArray() << QByteArray() << "/runtime/vantor";
    }

    void folderLocation()
    {
        QFETCH(QByteArray, xdgDataHome);
        QFETCH(QByteArray, home);
        QFETCH(QString, expectedBase);
        const QByteArray root = QFile::encodeName(m_env.root());
        QDir().mkpath(m_env.root() + QStringLiteral("/data"));
        xdgDataHome.replace('@', root);
        home.replace('@', root);
        xdgDataHome.isEmpty() ? qunsetenv("XDG_DATA_HOME") : qputenv("XDG_DATA_HOME", xdgDataHome);
        home.isEmpty() ? qunsetenv("HOME") : qputenv("HOME", home);

        const QString folder = VTUtil::applicationSupportFolder();
        QCOMPARE(folder, m_env.root() + expectedBase + QStringLiteral("/Vantor"));
        QVERIFY(QFileInfo(folder).isDir());
        QCOMPARE(QFileInfo(folder).permissions() & (QFile::ReadOther | QFile::ReadGroup), QFile::Permissions());
    }

    // A folder that cannot be made yet is asked for again; one found is kept, not looked up again.
    void missingParentFailsAndRetries()
    {
        const QString missing = m_env.root() + QStringLiteral("/not-yet/share");
        qputenv("XDG_DATA_HOME", QFile::encodeName(missing));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("cannot create the product folder")));
        QVERIFY(VTUtil::applicationSupportFolder().isEmpty());
        QVERIFY(!QFileInfo::exists(missing)); // no intermediate folders

        QVERIFY(QDir().mkpath(missing));
        const QString folder = missing + QStringLiteral("/Vantor");
        QCOMPARE(VTUtil::applicationSupportFolder(), folder);
        QVERIFY(QDir(folder).removeRecursively());
        qputenv("XDG_DATA_HOME", "/elsewhere");
        QCOMPARE(VTUtil::applicationSupportFolder(), folder);
        QVERIFY(!QFileInfo::exists(folder)); // not made again
    }

    // This process's main bundle (the test's folder) carries no model: every request for the
    // store fails with the error, and no store is made.
    void missingModelFailsEveryRequest()
    {
        RecordingAlerts alerts;
        QVERIFY(!VTUtil::applicationSupportFolder().isEmpty());
        for (int request = 1; request <= 2; ++request) {
            QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(u"Managed object model is nil"_s));
            QTest::ignoreMessage(QtWarningMsg, "VTUtil:persistentStoreCoordinator No model to generate a store from");
            QVERIFY(!VTUtil::managedObjectContext());
            QCOMPARE(alerts.errors.size(), request);
        }
        const PresentableError &error = alerts.errors.first();
        QCOMPARE(error.domain, u"com.quillfen.vantor.error"_s);
        QCOMPARE(error.code, 9999);
        QCOMPARE(error.localizedDescription, u"Failed to initialize the store"_s);
        QCOMPARE(error.failureReason, u"There was an error building up the data file."_s);
        QVERIFY(!QFileInfo::exists(m_env.productFolder() + u"/history.db"_s));
    }

private:
    TestEnvironment m_env;
};

QTEST_GUILESS_MAIN(TestVTUtil)
#include "tst_vtutil.moc"
