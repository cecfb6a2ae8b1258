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

    // Entries are compared without their alias data, which is checked on its own.
    void setWritesOnlyAChange_data()
    {
        QTest::addColumn<bool>("withList");
        QTest::addColumn<QVariantList>("before");
        QTest::addColumn<bool>("withHelper");
        QTest::addColumn<bool>("value");
        QTest::addColumn<QVariantList>("after");
        QTest::addColumn<int>("changes");
        const QVariantMap old = app(QStringLiteral("/old/place/VantorHelper.app")), helper = app(m_helper);
        QTest::newRow("on appends after others")
            << true << QVariantList{m_mail, m_notes} << true << true << QVariantList{m_mail, m_notes, helper} << 1;
        QTest::newRow("off removes every helper entry") << true << QVariantList{old, m_mail, helper, m_notes} << true
                                                        << false << QVariantList{m_mail, m_notes} << 1;
        QTest::newRow("other name, same ending") << true << QVariantList{app(QStringLiteral("/a/NotVantorHelper.app"))}
                                                 << true << false << QVariantList{} << 1;
        const QVariantList others{app(QStringLiteral("/a/VantorHelper.app.bak")),
                                  QVariantMap{{QStringLiteral("Hide"), true}}};
        QTest::newRow("backup copy and no path are not the helper") << true << others << true << false << others << 0;
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
        QCOMPARE(p->autorunAtLogin(), changes ? !value : value && withList);
        QSignalSpy changed(p.get(), &VantorPref::autorunAtLoginChanged);
        p->setAutorunAtLogin(value);
        QVariantList items = list();
        for (QVariant &item : items) {
            QVariantMap entry = item.toMap();
            if (entry.contains(QStringLiteral("AliasData")))
                QCOMPARE(BDAlias(entry.take(QStringLiteral("AliasData")).toByteArray()).fullPath(),
                         QDir(m_helper).canonicalPath());
            item = entry;
        }
        QCOMPARE(items, after);
        QCOMPARE(p->autorunAtLogin(), withList && value && withHelper);
        QCOMPARE(QFileInfo::exists(listFile()), withList);
        if (!withList)
            return;
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
