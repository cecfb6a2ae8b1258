#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "common/VTDefaultsController.h"
#include "common/VTUtil.h"
#include "platform/PropertyList.h"

#include <QFileInfo>
#include <QMetaProperty>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString kAllDefaults =
    u"{'active': True, 'checkUpdates': True, 'firstRun': True, 'folderAliases': [], 'runAtLogin': True, 'visible': True}"_s;

} // namespace

class TestVTDefaultsController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        VTDefaultsController::forgetSharedInstance();
        VTUtil::forgetApplicationSupportFolder();
        qputenv("HOME", QFile::encodeName(m_env.home()));
        qputenv("XDG_DATA_HOME", QFile::encodeName(m_env.dataHome()));
        QFile::remove(m_env.productFolder());
        QDir(m_env.productFolder()).removeRecursively();
    }

    void folderLocation_data()
    {
        QTest::addColumn<QByteArray>("xdgDataHome");
        QTest::addColumn<QByteArray>("home");
        QTest::addColumn<QString>("expectedBase"); // relative to the test root

        QTest::newRow("XDG_DATA_HOME") << QByteArray("@/data") << QByteArray("@/home") << "/data";
        // A fresh account: the platform makes the application-data folder, as the XDG rules ask.
        QTest::newRow("XDG_DATA_HOME not made yet")
            << QByteArray("@/new/share") << QByteArray("@/home") << "/new/share";
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
        // A file stands where the application-data folder would be made.
        const QString blocked = m_env.root() + QStringLiteral("/not-yet"), missing = blocked + QStringLiteral("/share");
        TestEnvironment::writeFile(blocked, "x");
        qputenv("XDG_DATA_HOME", QFile::encodeName(missing));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("cannot create the product folder")));
        QVERIFY(VTUtil::applicationSupportFolder().isEmpty());

        QVERIFY(QFile::remove(blocked));
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

    void readingRules_data()
    {
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<QString>("fileAfterCreation");
        QTest::addColumn<bool>("helperActive");
        QTest::addColumn<bool>("checkForUpdates");

        const QByteArray onlyInactive = PropertyList::toXml(QVariantMap{{u"active"_s, false}});
        QTest::newRow("missing file") << QByteArray() << kAllDefaults << true << true;
        QTest::newRow("empty dictionary") << PropertyList::toXml(QVariantMap()) << kAllDefaults << true << true;
        QTest::newRow("truncated") << onlyInactive.left(onlyInactive.size() - 20) << kAllDefaults << true << true;
        QTest::newRow("array at the root") << PropertyList::toXml(QVariantList{false}) << kAllDefaults << true << true;
        // No merging: the other keys stay absent and read as their defaults.
        QTest::newRow("only active") << onlyInactive << u"{'active': False}"_s << false << true;
        QTest::newRow("strings and numbers")
            << PropertyList::toXml(QVariantMap{{u"active"_s, u"NO"_s}, {u"checkUpdates"_s, 0}})
            << u"{'active': 'NO', 'checkUpdates': 0}"_s << false << false;
    }

    void readingRules()
    {
        QFETCH(QByteArray, contents);
        QFETCH(QString, fileAfterCreation);
        QFETCH(bool, helperActive);
        QFETCH(bool, checkForUpdates);

        if (!contents.isEmpty())
            TestEnvironment::writeFile(file(), contents);
        VTDefaultsController *made = VTDefaultsController::create(); // before store() makes one
        QCOMPARE(made, store());

        QCOMPARE(TestEnvironment::pythonPlist(file()), fileAfterCreation);
        QCOMPARE(store()->helperActive(), helperActive);
        QCOMPARE(store()->checkForUpdates(), checkForUpdates);
        QVERIFY(store()->visible());
        QVERIFY(store()->autorunAtLogin());
        QVERIFY(store()->firstRun());

        // A second creation neither re-reads nor re-writes.
        TestEnvironment::writeFile(file(), PropertyList::toXml(QVariantMap{{u"visible"_s, false}}));
        QVERIFY(!VTDefaultsController::create());
        QVERIFY(store()->visible());
        QCOMPARE(TestEnvironment::pythonPlist(file()), u"{'visible': False}"_s);
    }

    void settersWriteBeforeSignalling_data()
    {
        QTest::addColumn<QString>("key"); // in the file; the row's name is the property
        QTest::newRow("helperActive") << "active";
        QTest::newRow("checkForUpdates") << "checkUpdates";
        QTest::newRow("autorunAtLogin") << "runAtLogin";
        QTest::newRow("visible") << "visible";
    }

    void settersWriteBeforeSignalling()
    {
        QFETCH(QString, key);
        const QMetaObject *type = store()->metaObject();
        const QMetaProperty meta = type->property(type->indexOfProperty(QTest::currentDataTag()));
        QVariant seenInFile;
        int heard = 0;
        for (auto signal : {&VTDefaultsController::helperActiveChanged, &VTDefaultsController::checkForUpdatesChanged,
                            &VTDefaultsController::autorunAtLoginChanged, &VTDefaultsController::visibleChanged}) {
            connect(store(), signal, this, [&] {
                ++heard;
                seenInFile = PropertyList::readFile(file())->toMap().value(key);
            });
        }

        QVERIFY(meta.write(store(), false));
        QCOMPARE(heard, 1);
        QCOMPARE(seenInFile, QVariant(false)); // already in the file when observers hear of it
        QVERIFY(meta.write(store(), false)); // unchanged values still notify
        QCOMPARE(heard, 2);
    }

    void writeFailureIsLoggedAndKeptInMemory()
    {
        store();
        QDir(m_env.productFolder()).removeRecursively();
        TestEnvironment::writeFile(m_env.productFolder(), "a plain file");
        VTUtil::forgetApplicationSupportFolder();
        QTest::ignoreMessage(QtWarningMsg, qPrintable(u"Could not write preferences to file: "_s + file()));
        store()->setHelperActive(false);
        QVERIFY(!store()->helperActive());
        QCOMPARE(TestEnvironment::readFile(m_env.productFolder()), QByteArray("a plain file"));
    }

private:
    QString file() const { return m_env.productFolder() + u"/defaults.plist"_s; }
    VTDefaultsController *store() const { return VTDefaultsController::sharedDefaultsController(); }

    TestEnvironment m_env;
};

QTEST_GUILESS_MAIN(TestVTDefaultsController)
#include "tst_vtdefaultscontroller.moc"
