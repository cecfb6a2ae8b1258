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
    const QString m_helper =
        HelperIdentity::applicationPathInPane(m_env.root() + QStringLiteral("/with/Vantor.prefPane"));
    const QVariantMap m_mail = app(QStringLiteral("/usr/lib/Mail.app"));
    const QVariantMap m_notes = app(QStringLiteral("/opt/Notes.app"));

    QString listFile() const { return PreferencesDomain(QStringLiteral("loginwindow")).filePath(); }
    void writeList(const QVariantList &items)
    {
        QDir().mkpath(QFileInfo(listFile()).path());
        QVERIFY(PropertyList::writeFile(listFile(),
                                        QVariantMap{{QStringLiteral("AutoLaunchedApplicationDictionary"), items}}));
    }
    QVariantList list() const
    {
        return PreferencesDomain(QStringLiteral("loginwindow"))
            .copyValue(QStringLiteral("AutoLaunchedApplicationDictionary"))
            .toList();
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
    void init() { QFile::remove(listFile()); }

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
        QCOMPARE(entry.value(QStringLiteral("Path")).toString(), m_helper);
        QCOMPARE(BDAlias(entry.value(QStringLiteral("AliasData")).toByteArray()).fullPath(),
                 QDir(m_helper).canonicalPath());
        // A third-party reader sees exactly the three keys, with their types.
        const QString seen = TestEnvironment::pythonPlist(listFile());
        // Python quotes bytes holding a ' with ".
        QVERIFY2(seen.contains(QRegularExpression(QStringLiteral("\\{'AliasData': b['\"]VTAL"))), qPrintable(seen));
        QVERIFY2(seen.endsWith(QStringLiteral("'Hide': False, 'Path': '%1'}]}").arg(m_helper)), qPrintable(seen));
        QCOMPARE(QFileInfo(listFile()).permissions() & (QFile::ReadOther | QFile::ReadGroup), QFile::Permissions());
    }

    void regenerateLeavesOneFreshEntry()
    {
        writeList({app(QStringLiteral("/old/place/VantorHelper.app")), m_mail, app(m_helper)});
        auto p = pane(true);
        p->regenerateAutologinItem();
        const QVariantList items = list();
        QCOMPARE(items.size(), 2);
        QCOMPARE(items[0].toMap(), m_mail);
        QCOMPARE(items[1].toMap().value(QStringLiteral("Path")).toString(), m_helper);
        QVERIFY(items[1].toMap().contains(QStringLiteral("AliasData")));

        // No helper entry: start-up adds nothing.
        writeList({m_mail});
        p->regenerateAutologinItem();
        QCOMPARE(list(), QVariantList({m_mail}));
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
        writeList({path.isNull() ? QVariantMap{{QStringLiteral("Hide"), true}} : app(path)});
        QCOMPARE(pane(true)->autorunAtLogin(), matches);
    }

    void setWritesOnlyAChange_data()
    {
        QTest::addColumn<bool>("withList");
        QTest::addColumn<QVariantList>("before");
        QTest::addColumn<bool>("withHelper");
        QTest::addColumn<bool>("value");
        QTest::addColumn<QVariantList>("after");
        QTest::addColumn<int>("changes");
        const QVariantMap old = app(QStringLiteral("/old/place/VantorHelper.app")), helper = app(m_helper);
        QTest::newRow("off removes every helper entry") << true << QVariantList{old, m_mail, helper, m_notes} << true
                                                        << false << QVariantList{m_mail, m_notes} << 1;
        QTest::newRow("no helper inside: an empty entry")
            << true << QVariantList{m_mail} << false << true << QVariantList{m_mail, QVariantMap()} << 1;
        QTest::newRow("on already") << true << QVariantList{m_mail, helper} << true << true
                                    << QVariantList{m_mail, helper} << 0;
        QTest::newRow("off already") << true << QVariantList{m_mail} << true << false << QVariantList{m_mail} << 0;
        QTest::newRow("no list stays absent") << false << QVariantList() << true << true << QVariantList() << 0;
    }
    void setWritesOnlyAChange()
    {
        QFETCH(bool, withList);
        QFETCH(QVariantList, before);
        QFETCH(bool, withHelper);
        QFETCH(bool, value);
        QFETCH(QVariantList, after);
        QFETCH(int, changes);
        if (withList)
            writeList(before);
        const auto inode = [this] {
            struct stat st = {};
            ::stat(QFile::encodeName(listFile()).constData(), &st);
            return st.st_ino;
        };
        const ino_t was = inode();
        auto p = pane(withHelper);
        QSignalSpy changed(p.get(), &VantorPref::autorunAtLoginChanged);
        p->setAutorunAtLogin(value);
        QCOMPARE(list(), after);
        QCOMPARE(QFileInfo::exists(listFile()), withList);
        if (!withList) {
            QVERIFY(!p->autorunAtLogin());
            return;
        }
        QCOMPARE(changed.count(), changes);
        if (!changes) // an atomic write would have made a new file
            QCOMPARE(inode(), was);
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
