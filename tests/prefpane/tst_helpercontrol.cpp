// The pane's helper control against a fake workspace: launches, permissions, switch, login item.

#include "FakeWorkspace.h"
#include "NotificationRecorder.h"
#include "PaneFixture.h"
#include "RecordingAlerts.h"
#include "common/BDAlias.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "common/VTDefaultsController.h"
#include "common/VTPreferenceCommunicator.h"
#include "platform/PreferencesDomain.h"
#include "platform/ProcessInfo.h"
#include "platform/PropertyList.h"
#include "platform/RunningApplication.h"

#include <QDir>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include <optional>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

const QString kListKey = u"AutoLaunchedApplicationDictionary"_s;

QVariantMap app(const QString &path)
{
    return {{u"Path"_s, path}, {u"Hide"_s, false}};
}

} // namespace

class TestHelperControl : public QObject
{
    Q_OBJECT

private:
    // A pane of a bundle of its own whose helper has mode (0: no helper), perhaps running already.
    VantorPref &makePane(unsigned mode, bool running = false)
    {
        const QString path = bundle(mode);
        QDir().mkpath(path + u"/Contents/Resources"_s);
        QFile::copy(TestEnvironment::paneBundle() + u"/Contents/Info.plist"_s, path + u"/Contents/Info.plist"_s);
        if (mode) {
            const QString exe = HelperIdentity::executablePath(HelperIdentity::applicationPathInPane(path));
            TestEnvironment::writeFile(exe, "#!/bin/sh\n");
            ::chmod(QFile::encodeName(exe).constData(), mode);
        }
        if (running)
            m_workspace->running.append(new RunningApplication(HelperIdentity::busName(), 1, &*m_workspace));
        m_ui.emplace(path);
        return m_ui->pane;
    }
    QString bundle(unsigned mode) const { return m_env.root() + u"/%1/Vantor.prefPane"_s.arg(mode, 0, 8); }

    QString listFile() const { return PreferencesDomain(u"loginwindow"_s).filePath(); }
    void writeList(const QVariantList &items)
    {
        QDir().mkpath(QFileInfo(listFile()).path());
        QVERIFY(PropertyList::writeFile(listFile(), QVariantMap{{kListKey, items}}));
    }
    QVariantList list() const { return PreferencesDomain(u"loginwindow"_s).copyValue(kListKey).toList(); }

    TestEnvironment m_env;
    std::optional<FakeWorkspace> m_workspace;
    std::optional<RecordingAlerts> m_alerts;
    std::optional<PaneFixture> m_ui;
    const QString m_helper = HelperIdentity::applicationPathInPane(bundle(0755));
    const QVariantMap m_mail = app(u"/usr/lib/Mail.app"_s);
    const QVariantMap m_notes = app(u"/opt/Notes.app"_s);

private Q_SLOTS:
    void initTestCase()
    {
        VTDefaultsController::create();
        VTPreferenceCommunicator::create();
    }

    void init()
    {
        VantorPref::forgetHelperPermissionsWarning();
        m_workspace.emplace();
        m_alerts.emplace();
        QFile::remove(listFile());
    }

    void cleanup()
    {
        m_ui.reset();
        m_alerts.reset();
        m_workspace.reset();
    }

    void permissionsSheetOncePerRun_data()
    {
        QTest::addColumn<unsigned>("mode");
        QTest::addColumn<int>("sheets");
        QTest::newRow("0755") << 0755u << 0;
        QTest::newRow("group may write: the test is equality") << 0775u << 1;
        QTest::newRow("helper missing") << 0u << 1;
    }

    void permissionsSheetOncePerRun()
    {
        QFETCH(unsigned, mode);
        QFETCH(int, sheets);
        VantorPref &pane = makePane(mode);
        pane.launchHelper();
        pane.launchHelper();
        QCOMPARE(m_alerts->sheets.size(), sheets);
        QCOMPARE(m_workspace->launches.size(), mode ? 2 : 0);
        if (mode)
            QCOMPARE(m_workspace->launches.first().toLocalFile(),
                     HelperIdentity::applicationPathInPane(pane.bundle()->bundlePath()) + u'/');
        if (sheets) {
            QCOMPARE(m_alerts->sheetWindows.first(), &m_ui->window);
            QCOMPARE(m_alerts->sheets.first().messageText, u"Permissions Issue"_s);
            QCOMPARE(
                m_alerts->sheets.first().informativeText,
                QStringLiteral("The Vantor Helper application has the wrong permissions, and will probably not run. "
                               "Please reinstall Vantor or change the permissions manually, or contact support."));
            QCOMPARE(m_alerts->sheets.first().buttons, QStringList{u"OK"_s});
        }
    }

    void switchAndSelection_data()
    {
        QTest::addColumn<QString>("how");
        QTest::addColumn<bool>("wasActive");
        QTest::addColumn<bool>("helperRunning");
        QTest::newRow("switch clicked on, no helper") << "switch" << false << false;
        QTest::newRow("switch clicked off, helper running") << "switch" << true << true;
        QTest::newRow("other control, on") << "other" << false << true;
        QTest::newRow("other control, off, no helper") << "other" << true << false;
        QTest::newRow("selected, none running, active") << "select" << true << false;
        QTest::newRow("selected, running, inactive") << "select" << false << true;
    }

    void switchAndSelection()
    {
        QFETCH(QString, how);
        QFETCH(bool, wasActive);
        QFETCH(bool, helperRunning);
        VantorPref &pane = makePane(0755, helperRunning);
        VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
        store->setHelperActive(wasActive);

        NotificationRecorder recorder;
        if (how == "select"_L1) {
            pane.didSelect();
            QCOMPARE(m_ui->host.activations, QList<bool>{false});
        } else {
            pane.toggleActiveButton->setChecked(wasActive);
            QPushButton other;
            if (how == "switch"_L1)
                QTest::mouseClick(pane.toggleActiveButton, Qt::LeftButton);
            else
                pane.toggleActive(&other);
        }

        const bool active = how == "select"_L1 ? wasActive : !wasActive;
        QCOMPARE(m_workspace->launches.size(), helperRunning ? 0 : 1);
        QCOMPARE(pane.toggleActiveButton->isChecked(), active);
        QCOMPARE(store->helperActive(), active);
        QCOMPARE(ProcessInfo::processInfo()->suddenTerminationDisableCount(), 0);
        recorder.settle();
        QCOMPARE(recorder.count(QLatin1String(Notifications::Active)), active == wasActive ? 0 : 1);

        // The helper it started ending later changes nothing and starts nothing.
        if (!helperRunning) {
            recorder.clear();
            m_workspace->running.first()->markTerminated();
            recorder.settle();
            QVERIFY(recorder.names().isEmpty());
            QCOMPARE(m_workspace->launches.size(), 1);
            QCOMPARE(pane.toggleActiveButton->isChecked(), active);
        }
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
        const QVariantMap old = app(u"/old/place/VantorHelper.app"_s), helper = app(m_helper);
        QTest::newRow("on appends after others")
            << true << QVariantList{m_mail, m_notes} << true << true << QVariantList{m_mail, m_notes, helper} << 1;
        QTest::newRow("off removes every helper entry") << true << QVariantList{old, m_mail, helper, m_notes} << true
                                                        << false << QVariantList{m_mail, m_notes} << 1;
        QTest::newRow("other name, same ending")
            << true << QVariantList{app(u"/a/NotVantorHelper.app"_s)} << true << false << QVariantList{} << 1;
        const QVariantList others{app(u"/a/VantorHelper.app.bak"_s), QVariantMap{{u"Hide"_s, true}}};
        QTest::newRow("backup copy and no path are not the helper") << true << others << true << false << others << 0;
        QTest::newRow("no helper inside: an empty entry")
            << true << QVariantList{m_mail} << false << true << QVariantList{m_mail, QVariantMap()} << 1;
        QTest::newRow("on already") << true << QVariantList{m_mail, helper} << true << true
                                    << QVariantList{m_mail, helper} << 0;
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
        VantorPref &p = makePane(withHelper ? 0755 : 0);
        QCOMPARE(p.autorunAtLogin(), changes ? !value : value && withList);
        QSignalSpy changed(&p, &VantorPref::autorunAtLoginChanged);
        p.setAutorunAtLogin(value);
        QVariantList items = list();
        for (QVariant &item : items) {
            QVariantMap entry = item.toMap();
            if (entry.contains(u"AliasData"_s))
                QCOMPARE(BDAlias(entry.take(u"AliasData"_s).toByteArray()).fullPath(), QDir(m_helper).canonicalPath());
            item = entry;
        }
        QCOMPARE(items, after);
        QCOMPARE(p.autorunAtLogin(), withList && value && withHelper);
        QCOMPARE(QFileInfo::exists(listFile()), withList);
        if (!withList)
            return;
        QCOMPARE(changed.count(), changes);
        if (!changes) // an atomic write would have made a new file
            QCOMPARE(inode(), was);
    }

    // Start-up leaves one fresh entry if there was one, and adds none; then the store drives it.
    void startUpAndStoreDriveLoginItem()
    {
        writeList({app(u"/old/place/VantorHelper.app"_s), m_mail, app(m_helper)});
        VantorPref &p = makePane(0755);
        p.mainViewDidLoad();
        const QVariantList items = list();
        QCOMPARE(items.size(), 2);
        QCOMPARE(items[0].toMap(), m_mail);
        QCOMPARE(items[1].toMap().value(u"Path"_s).toString(), m_helper);
        QVERIFY(items[1].toMap().contains(u"AliasData"_s));
        writeList({m_mail});
        p.regenerateAutologinItem();
        QCOMPARE(list(), QVariantList({m_mail}));

        VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
        store->setAutorunAtLogin(true);
        QVERIFY(p.autorunAtLogin());
        QCOMPARE(list().size(), 2);
        store->setAutorunAtLogin(false);
        QCOMPARE(list(), QVariantList({m_mail}));
        // One way only: the pane's setter leaves the store alone.
        p.setAutorunAtLogin(true);
        QVERIFY(!store->autorunAtLogin());
    }
};

QTEST_MAIN(TestHelperControl)
#include "tst_helpercontrol.moc"
