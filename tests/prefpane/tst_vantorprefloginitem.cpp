#include "common/BDAlias.h"
#include "common/HelperIdentity.h"
#include "platform/Bundle.h"
#include "platform/PreferencesDomain.h"
#include "platform/PropertyList.h"
#include "RecordingAlerts.h"
#include "TestEnvironment.h"
#include "common/VTDefaultsController.h"
#include "prefpane/VantorPref.h"

#include <QDir>
#include <QFileInfo>
#include <QSignalSpy>
#include <QRegularExpression>
#include <QTest>

#include <sys/stat.h>

namespace {

QVariantMap app(const QString &path)
{
    return {{QStringLiteral("Path"), path}, {QStringLiteral("Hide"), false}};
}

} // namespace

class TestVantorPrefLoginItem : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    RecordingAlerts m_alerts; // the stand-in bundle has no history model
    QString m_helper;
    const QVariantMap m_mail = app(QStringLiteral("/usr/lib/Mail.app"));
    const QVariantMap m_notes = app(QStringLiteral("/opt/Notes.app"));

    QString listFile() const { return PreferencesDomain(QStringLiteral("loginwindow")).filePath(); }
    void writeList(const QVariantList &items)
    {
        QDir().mkpath(QFileInfo(listFile()).path());
        QVERIFY(PropertyList::writeFile(listFile(), QVariantMap{{"AutoLaunchedApplicationDictionary", items}}));
    }
    QVariantList list() const
    {
        return PreferencesDomain(QStringLiteral("loginwindow")).copyValue("AutoLaunchedApplicationDictionary").toList();
    }
    // A pane bundle of its own, with or without the helper inside.
    std::unique_ptr<VantorPref> pane(bool withHelper)
    {
        const QString root = m_env.root() + (withHelper ? QStringLiteral("/with") : QStringLiteral("/without"))
            + QStringLiteral("/Vantor.prefPane");
        QDir().mkpath(root + QStringLiteral("/Contents/Resources"));
        if (withHelper)
            QDir().mkpath(HelperIdentity::applicationPathInPane(root));
        auto p = std::make_unique<VantorPref>();
        p->initWithBundle(Bundle::bundleWithPath(root), nullptr);
        return p;
    }

private Q_SLOTS:
    void init()
    {
        QFile::remove(listFile());
        m_helper = HelperIdentity::applicationPathInPane(m_env.root() + QStringLiteral("/with/Vantor.prefPane"));
    }

    void enableAppendsAfterOthers()
    {
        writeList({m_mail, m_notes});
        auto p = pane(true);
        QSignalSpy changed(p.get(), &VantorPref::autorunAtLoginChanged);
        QVERIFY(!p->autorunAtLogin());
        p->setAutorunAtLogin(true);
        QCOMPARE(changed.count(), 1);
        QVERIFY(p->autorunAtLogin());
        const QVariantList items = list();
        QCOMPARE(items.size(), 3);
        QCOMPARE(items[0].toMap(), m_mail);
        QCOMPARE(items[1].toMap(), m_notes);
        const QVariantMap entry = items[2].toMap();
        QCOMPARE(entry.value("Path").toString(), m_helper);
        QCOMPARE(BDAlias(entry.value("AliasData").toByteArray()).fullPath(), QDir(m_helper).canonicalPath());
        // A third-party reader sees exactly the three keys, with their types.
        const QString seen = TestEnvironment::pythonPlist(listFile());
        // Python quotes bytes holding a ' with ".
        QVERIFY2(seen.contains(QRegularExpression(QStringLiteral("\\{'AliasData': b['\"]VTAL"))), qPrintable(seen));
        QVERIFY2(seen.endsWith(QStringLiteral("'Hide': False, 'Path': '%1'}]}").arg(m_helper)), qPrintable(seen));
        QCOMPARE(QFileInfo(listFile()).permissions() & (QFile::ReadOther | QFile::ReadGroup), QFile::Permissions());
    }

    void disableRemovesEveryHelperEntry()
    {
        writeList({app(QStringLiteral("/old/place/VantorHelper.app")), m_mail, app(m_helper), m_notes});
        auto p = pane(true);
        QVERIFY(p->autorunAtLogin());
        p->setAutorunAtLogin(false);
        QCOMPARE(list(), QVariantList({m_mail, m_notes}));
    }

    void regenerateLeavesOneFreshEntry()
    {
        writeList({app(QStringLiteral("/old/place/VantorHelper.app")), m_mail, app(m_helper)});
        auto p = pane(true);
        p->regenerateAutologinItem();
        const QVariantList items = list();
        QCOMPARE(items.size(), 2);
        QCOMPARE(items[0].toMap(), m_mail);
        QCOMPARE(items[1].toMap().value("Path").toString(), m_helper);
        QVERIFY(items[1].toMap().contains("AliasData"));

        // No helper entry: start-up adds nothing.
        writeList({m_mail});
        p->regenerateAutologinItem();
        QCOMPARE(list(), QVariantList({m_mail}));
    }

    void presentValueWritesNothing_data()
    {
        QTest::addColumn<bool>("value");
        QTest::newRow("on") << true;
        QTest::newRow("off") << false;
    }
    void presentValueWritesNothing()
    {
        QFETCH(bool, value);
        writeList(value ? QVariantList{m_mail, app(m_helper)} : QVariantList{m_mail});
        struct stat before = {};
        ::stat(QFile::encodeName(listFile()).constData(), &before);
        auto p = pane(true);
        QSignalSpy changed(p.get(), &VantorPref::autorunAtLoginChanged);
        p->setAutorunAtLogin(value);
        struct stat after = {};
        ::stat(QFile::encodeName(listFile()).constData(), &after);
        QCOMPARE(after.st_ino, before.st_ino); // an atomic write would have made a new file
        QCOMPARE(changed.count(), 0);
    }

    void suffixRule_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("matches");
        QTest::newRow("helper") << "/a/VantorHelper.app" << true;
        QTest::newRow("other name, same ending") << "/a/NotVantorHelper.app" << true;
        QTest::newRow("backup copy") << "/a/VantorHelper.app.bak" << false;
        QTest::newRow("no path") << QString() << false;
    }
    void suffixRule()
    {
        QFETCH(QString, path);
        QFETCH(bool, matches);
        writeList({path.isNull() ? QVariantMap{{"Hide", true}} : app(path)});
        QCOMPARE(pane(true)->autorunAtLogin(), matches);
    }

    void noListStaysAbsent()
    {
        auto p = pane(true);
        p->setAutorunAtLogin(true);
        QVERIFY(!p->autorunAtLogin());
        QVERIFY(!QFileInfo::exists(listFile()));
    }

    void noHelperGivesEmptyEntry()
    {
        writeList({m_mail});
        pane(false)->setAutorunAtLogin(true);
        QCOMPARE(list(), QVariantList({m_mail, QVariantMap()}));
    }

    void storeDrivesLoginItem()
    {
        writeList({m_mail});
        auto p = pane(true);
        p->loadMainView();
        p->mainViewDidLoad();
        VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
        store->setAutorunAtLogin(true);
        QVERIFY(p->autorunAtLogin());
        QCOMPARE(list().size(), 2);
        store->setAutorunAtLogin(false);
        QCOMPARE(list(), QVariantList({m_mail}));
        // One way only: the pane's setter leaves the store alone.
        p->setAutorunAtLogin(true);
        QVERIFY(!store->autorunAtLogin());
    }
};

QTEST_MAIN(TestVantorPrefLoginItem)
#include "tst_vantorprefloginitem.moc"
