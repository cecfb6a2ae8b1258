#include "TestEnvironment.h"
#include "common/VTDefaultsController.h"
#include "common/VTUtil.h"
#include "platform/PropertyList.h"

#include <QMetaProperty>
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
        QFile::remove(m_env.productFolder());
        QDir(m_env.productFolder()).removeRecursively();
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
        VTDefaultsController *made = VTDefaultsController::create();
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
