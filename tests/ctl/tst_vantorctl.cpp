// vantorctl against the real helper on the test's bus: what it refuses (sending nothing), and a
// folder on btrfs compressed through it by root and by an ordinary user in a session of their own.
#include "LoopMount.h"
#include "NotificationRecorder.h"
#include "TestEnvironment.h"
#include "TestFiles.h"
#include "common/Notifications.h"
#include "common/VTUtil.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/FileManager.h"
#include "platform/PropertyList.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

// Arguments may carry printf escapes ("\\351"): a path that is not UTF-8 cannot travel in a QString.
TestEnvironment::Run run(const QStringList &arguments,
                         const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
{
    const QString unescape = u"a=(); for x; do a+=(\"$(printf %b \"$x\")\"); done; exec \"$0\" \"${a[@]}\""_s;
    return TestEnvironment::run(
        u"bash"_s,
        QStringList{u"-c"_s, unescape, QStringLiteral(VANTORCTL), u"--pane"_s, TestEnvironment::paneBundle()}
            + arguments,
        env, 120000);
}

// vantorctl, or a script given it and the pane first, as root or as the ordinary user 65534, in
// home and nothing else of this test's environment, with a session bus of its own for a script.
TestEnvironment::Run runAs(bool ordinaryUser, const QString &home, const QStringList &arguments,
                           const QString &script = {})
{
    QStringList command{QStringLiteral(VANTORCTL), u"--pane"_s, TestEnvironment::paneBundle()};
    if (!script.isEmpty())
        command = QStringList{u"dbus-run-session"_s, u"--"_s, script, command.first(), command.last()};
    if (ordinaryUser)
        command = QStringList{u"setpriv"_s, u"--reuid=65534"_s, u"--regid=65534"_s, u"--clear-groups"_s} + command;
    QProcessEnvironment env;
    env.insert(u"PATH"_s, qEnvironmentVariable("PATH"));
    env.insert(u"HOME"_s, home);
    const QString program = command.takeFirst();
    return TestEnvironment::run(program, command + arguments, env, 180000);
}

// The first folder of a JSON report.
QJsonObject reportedFolder(const TestEnvironment::Run &run)
{
    return QJsonDocument::fromJson(run.out.toUtf8()).object().value(u"folders"_s).toArray().first().toObject();
}

} // namespace

class TestVantorCtl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QDir().mkpath(m_env.productFolder()) && QDir().mkpath(m_env.home() + u"/Documents"_s));
        TestEnvironment::writeFile(m_env.home() + u"/notes.txt"_s, "text");
        QCOMPARE(::mkdir(undecodableFolder().constData(), 0700), 0);
        // The host makes the login list; the switch only edits one that exists.
        TestEnvironment::writeFile(
            loginList(), PropertyList::toXml(QVariantMap{{u"AutoLaunchedApplicationDictionary"_s, QVariantList()}}));
    }

    void cleanup()
    {
        if (TestEnvironment::helperOwnsItsName()) {
            DistributedNotificationCenter::defaultCenter()->postNotificationName(
                QLatin1String(Notifications::HelperShouldQuit));
            QTRY_VERIFY_WITH_TIMEOUT(!TestEnvironment::helperOwnsItsName(), 15000);
        }
        m_helper.reset();
        QFile::remove(m_env.productFolder() + u"/history.db"_s);
    }

    void cleanupTestCase()
    {
        ::rmdir(undecodableFolder().constData()); // QDir cannot remove what it cannot name
    }

    void commands_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("setting"); // helper | no helper | no bus | damaged store | fresh account
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QStringList>("posted"); // what reached the bus, in order: "name key=value,value"
        QTest::addColumn<QString>("active"); // afterwards in the settings and the login list, if checked

        const auto row = [](const char *name, const QStringList &arguments, const QString &setting, int exitCode,
                            const QString &message, const QStringList &posted = {}, const QString &active = {}) {
            QTest::newRow(name) << arguments << setting << exitCode << message << posted << active;
        };
        const QString home = m_env.home(), docs = home + u"/Documents"_s, file = home + u"/notes.txt"_s;
        const QString helper = u"helper"_s, notAFolder = file + u": not a folder"_s;
        row("a file instead of a folder", {u"add"_s, file}, helper, 1, notAFolder);
        row("a missing path", {u"add"_s, home + u"/gone"_s}, helper, 1, home + u"/gone: no such folder"_s);
        row("a path not UTF-8", {u"add"_s, home + u"/caf\\351"_s}, helper, 1,
            u"Vantor cannot keep the folder %1/caf%E9 compressed: its path is not valid UTF-8"_s.arg(home));
        row("a folder and a file: the folder is sent", {u"add"_s, file, docs + u"/./"_s}, helper, 1, notAFolder,
            {u"com.quillfen.vantor.folders foldersToAdd="_s + docs});
        row("no helper", {u"add"_s, docs}, u"no helper"_s, 1,
            u"the Vantor helper is not running, so nothing was sent; start it with \"vantorctl on\" and try again"_s);
        row("no bus: add", {u"add"_s, docs}, u"no bus"_s, 1,
            u"no session bus, so the helper cannot be asked: nothing was sent"_s);
        row("no bus: status", {u"status"_s}, u"no bus"_s, 1,
            u"no session bus: cannot tell whether the helper is running"_s);
        row("remove a folder not listed", {u"remove"_s, docs}, helper, 1, docs + u": not in the list of folders"_s);
        const QString damaged =
            u"Vantor Database Error: the history store %1/history.db is damaged"_s.arg(m_env.productFolder());
        row("damaged history.db: list", {u"list"_s}, u"damaged store"_s, 1, damaged);
        row("damaged history.db: status", {u"status"_s, u"--json"_s}, u"damaged store"_s, 1, damaged);
        row("damaged history.db: remove", {u"remove"_s, docs}, u"damaged store"_s, 1, damaged);
        row("usage: no command", {}, helper, 2, u"no command given"_s);
        row("usage: list --xml", {u"list"_s, u"--xml"_s}, helper, 2, u"list takes only --json"_s);
        const QString noHelper = u"no helper"_s;
        row("usage: report without a folder", {u"report"_s, u"--json"_s}, noHelper, 2,
            u"report needs at least one PATH"_s);
        row("usage: report --depth -1", {u"report"_s, u"--depth"_s, u"-1"_s, docs}, noHelper, 2,
            u"--depth takes a number of levels, 0 or more"_s);
        row("report a file", {u"report"_s, file}, noHelper, 1, notAFolder);
        row("report a folder not on btrfs", {u"report"_s, docs}, noHelper, 1, docs + u": not on btrfs"_s);
        // "active" and the login item are set before the helper is told; "on" returns once it listens.
        row("on", {u"on"_s}, u"no helper"_s, 0, {}, {u"com.quillfen.vantor.active"_s}, u"True"_s);
        row("off", {u"off"_s}, helper, 0, {}, {u"com.quillfen.vantor.active"_s, u"vantorHelperShouldQuit"_s},
            u"False"_s);
        // A new account, or a server reached over ssh: no ~/.local/share and no ~/.config yet.
        row("a fresh account: status", {u"status"_s}, u"fresh account"_s, 0, {});
        row("a fresh account: on", {u"on"_s}, u"fresh account"_s, 0, {}, {u"com.quillfen.vantor.active"_s});
    }

    void commands()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, setting);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        QFETCH(QStringList, posted);
        QFETCH(QString, active);

        const QString store = m_env.productFolder() + u"/history.db"_s;
        const QByteArray damaged = "not a database, but the user's file all the same\n";
        if (setting == "damaged store"_L1)
            TestEnvironment::writeFile(store, damaged);
        // The helper replaces a damaged store when it starts, so it stays away from those rows.
        if (setting == "helper"_L1 && !TestEnvironment::helperOwnsItsName()) {
            m_helper = std::make_unique<QProcess>();
            m_helper->setProcessChannelMode(QProcess::ForwardedErrorChannel);
            m_helper->start(TestEnvironment::helperExecutable(), {});
            QTRY_VERIFY(TestEnvironment::helperOwnsItsName());
        }
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        if (setting == "no bus"_L1)
            env.remove(u"DBUS_SESSION_BUS_ADDRESS"_s);
        const QTemporaryDir fresh(m_env.root() + u"/fresh-XXXXXX"_s);
        if (setting == "fresh account"_L1) {
            env.insert(u"HOME"_s, fresh.path());
            for (const char *base : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"})
                env.remove(QLatin1String(base));
        }
        NotificationRecorder recorder;

        const TestEnvironment::Run result = run(arguments, env);
        QVERIFY2(message.isEmpty() || result.err.contains(u"vantorctl: "_s + message), qPrintable(result.err));
        QVERIFY2(exitCode != 0 || result.err.isEmpty(), qPrintable(result.err));
        QCOMPARE(result.exitCode, exitCode);
        if (setting == "fresh account"_L1) {
            // Every folder made on the way is the user's alone, as the XDG rules ask.
            QVERIFY(QFileInfo(fresh.path() + u"/.local/share/Vantor/defaults.plist"_s).isFile());
            for (const char *made : {"/.local", "/.local/share", "/.local/state", "/.config", "/.cache"})
                QVERIFY2(!QFileInfo::exists(fresh.path() + QLatin1String(made))
                             || FileManager::posixPermissionsOfItemAtPath(fresh.path() + QLatin1String(made)) == 0700,
                         made);
        }
        if (active == "True"_L1) // "vantorctl on && vantorctl add DIR": the helper listens already
            QVERIFY(TestEnvironment::helperOwnsItsName());
        recorder.settle();
        QStringList reached;
        for (qsizetype i = 0; i < recorder.names().size(); ++i) {
            QString notification = recorder.names().at(i);
            if (notification == QLatin1String(Notifications::SavingsChanged)
                || notification == QLatin1String(Notifications::FoldersRenamed))
                continue; // the helper's own answers
            for (const auto &[key, value] : recorder.userInfos().at(i).asKeyValueRange())
                notification += u' ' + key + u'=' + value.toStringList().join(u',');
            reached.append(notification);
        }
        QCOMPARE(reached, posted);
        // A damaged store is reported, never replaced: it may still be worth saving.
        if (setting == "damaged store"_L1)
            QCOMPARE(TestEnvironment::readFile(store), damaged);
        if (!active.isEmpty()) {
            QVERIFY(TestEnvironment::pythonPlist(m_env.productFolder() + u"/defaults.plist"_s)
                        .contains(u"'active': "_s + active));
            QCOMPARE(TestEnvironment::pythonPlist(loginList()).contains(u"VantorHelper.app"_s), active == u"True"_s);
        }
    }

    void compressesThroughTheCommandLine_data()
    {
        QTest::addColumn<bool>("ordinaryUser");
        QTest::newRow("root") << false;
        QTest::newRow("ordinary user") << true;
    }

    void compressesThroughTheCommandLine()
    {
        QFETCH(bool, ordinaryUser);
        // Outside the test's own private folder, and open for others to enter.
        QTemporaryDir dir(u"/tmp/tst_vantorctl-XXXXXX"_s);
        QVERIFY(QFile::setPermissions(dir.path(), QFileDevice::Permissions(0x7755)));
        LoopMount btrfs(dir.path(), u"btrfs"_s, 256);
        if (!btrfs.mount())
            QSKIP(qPrintable(u"no btrfs image can be mounted here: "_s + btrfs.reason()));
        const QString home = dir.path() + u"/home"_s, folder = btrfs.mountPoint() + u"/Documents"_s;
        // A new account: not even ~/.local/share yet.
        QVERIFY(QDir().mkpath(home) && QDir().mkpath(folder));
        QByteArray text;
        for (int i = 0; text.size() < (4 << 20); ++i)
            text += "line " + QByteArray::number(i % 977) + " of a report that compresses well\n";
        TestEnvironment::writeFile(folder + u"/report.txt"_s, text);
        // Compressed already, and copied: the copy saves nothing more.
        TestEnvironment::writeFile(folder + u"/old.txt"_s, TestFiles::text(1 << 20, 8));
        TestFiles::sh(u"sync && btrfs filesystem defragment -czstd \"$0/old.txt\" && sync && "
                      "cp --reflink=always \"$0/old.txt\" \"$0/copy.txt\" && sync"_s,
                      {folder});

        // The user's whole session: a bus of its own, the helper switched on and off by vantorctl.
        if (ordinaryUser)
            QCOMPARE(QProcess::execute(u"chown"_s, {u"-R"_s, u"65534:65534"_s, home, folder}), 0);
        const TestEnvironment::Run session = runAs(ordinaryUser, home, {folder}, QStringLiteral(VANTOR_CTL_SESSION));
        QVERIFY2(session.exitCode == 0, qPrintable(session.err));

        const QJsonObject list = QJsonDocument::fromJson(session.out.toUtf8()).object();
        const QJsonArray folders = list.value(u"folders"_s).toArray();
        QCOMPARE(folders.size(), 1);
        const QJsonObject entry = folders.first().toObject();
        QCOMPARE(entry,
                 QJsonObject({{u"path"_s, folder},
                              {u"status"_s, 100},
                              {u"exists"_s, true},
                              {u"savings"_s, entry.value(u"savings"_s)}}));
        // The figure shown is the store's, and the disk agrees with it.
        const qint64 savings = entry.value(u"savings"_s).toInteger();
        QCOMPARE(list.value(u"totalSavings"_s).toInteger(), savings);
        QCOMPARE(
            TestEnvironment::sqlite(home + u"/.local/share/Vantor/history.db"_s, u"SELECT ZSAVINGS FROM ZHISTORY"_s),
            QString::number(savings));
        QProcess::execute(u"sync"_s, {});
        // "TOTAL  3%  <disk usage>  <uncompressed>  <referenced>": what the disk holds less than the data.
        const QString report = TestEnvironment::run(u"compsize"_s, {u"-b"_s, folder}).out;
        const QStringList total = report.section(u"TOTAL"_s, 1).split(u' ', Qt::SkipEmptyParts);
        QVERIFY2(total.size() >= 3 && report.contains(u"zstd"_s), qPrintable(report));
        // The helper's zstd model, counted for what btrfs stored compressed, within 1% of the disk.
        const qint64 freed = total.at(2).toLongLong() - total.at(1).toLongLong();
        QVERIFY2(freed > 0 && qAbs(savings - freed) <= freed / 100, qPrintable(report));

        // The report of the finished folder says what the record says: the helper's figures, from
        // its rescan cache.
        const QString shown = runAs(ordinaryUser, home, {u"report"_s, folder}).out;
        QVERIFY2(shown.contains(u", saving "_s + VTUtil::getPrettySize(savings)), qPrintable(shown));
        const QJsonObject reported = reportedFolder(runAs(ordinaryUser, home, {u"report"_s, u"--json"_s, folder}));
        QCOMPARE(reported.value(u"savings"_s).toInteger(), savings);
        QVERIFY(reported.value(u"watched"_s).toBool());
    }

    void reportAgreesWithTheTools_data() { compressesThroughTheCommandLine_data(); }

    // A folder of every kind of data, reported by root or an ordinary user; the figures checked
    // against tools we did not write, run as root.
    void reportAgreesWithTheTools()
    {
        QFETCH(bool, ordinaryUser);
        QTemporaryDir dir(u"/tmp/tst_vantorctl-XXXXXX"_s);
        QVERIFY(QFile::setPermissions(dir.path(), QFileDevice::Permissions(0x7755)));
        LoopMount btrfs(dir.path(), u"btrfs"_s, 256);
        if (!btrfs.mount())
            QSKIP(qPrintable(u"no btrfs image can be mounted here: "_s + btrfs.reason()));
        const QString folder = btrfs.mountPoint() + u"/mix"_s, home = dir.path() + u"/home"_s;
        QVERIFY(QDir().mkpath(home) && QDir().mkpath(folder));
        TestFiles::chown(home, 65534);
        TestEnvironment::writeFile(dir.path() + u"/text"_s, TestFiles::text(4 << 20, 7));
        // Compressed, plain, incompressible, inline, reflinked, snapshot-shared, NOCOW and (for the
        // ordinary user) unreadable data; a writable subvolume inside; a read-only snapshot and
        // another file system left out.
        const auto unmount = qScopeGuard([&] { TestFiles::sh(u"umount \"$0\"/.other"_s, {folder}); });
        TestFiles::sh(
            u"cd \"$0\" && head -c 4M ../../text > compressed.txt && head -c 3M ../../text > plain.txt && "
            "head -c 2M /dev/urandom > noise.bin && head -c 1500 ../../text > small.txt && sync && "
            "btrfs filesystem defragment -czstd compressed.txt && sync && "
            "cp --reflink=always compressed.txt copy.txt && btrfs subvolume create home && "
            "head -c 3M ../../text > home/old.txt && btrfs subvolume snapshot -r home ../home-snapshot && "
            "btrfs subvolume create ../empty && mkdir .snapshots && "
            "btrfs subvolume snapshot -r ../empty .snapshots/1 && touch nocow.img && chattr +C nocow.img && "
            "head -c 1M ../../text > nocow.img && head -c 16K ../../text > secret.txt && chmod 600 secret.txt && "
            "mkdir .other && mount -t tmpfs none .other && echo x > .other/file && sync"_s,
            {folder});

        const TestEnvironment::Run run = runAs(ordinaryUser, home, {u"report"_s, u"--json"_s, u"--depth=1"_s, folder});
        QVERIFY2(run.exitCode == 0 && run.err.isEmpty(), qPrintable(run.err));
        const QJsonObject reported = reportedFolder(run);
        const auto figure = [&](const char *key) { return reported.value(QLatin1String(key)).toInteger(); };
        const auto near = [](qint64 ours, const QString &theirs) {
            return qAbs(ours - theirs.toLongLong()) <= theirs.toLongLong() / 100;
        };
        // compsize: "TOTAL <percent> <disk usage> <uncompressed> <referenced>"; it cannot read tmpfs.
        const QStringList compsize = TestFiles::sh(u"compsize -b \"$0\"/*"_s, {folder})
                                         .section(u"TOTAL"_s, 1)
                                         .section(u'\n', 0, 0)
                                         .simplified()
                                         .split(u' ');
        QVERIFY2(compsize.size() == 4 && near(figure("referenced"), compsize[3]) && near(figure("disk"), compsize[1]),
                 qPrintable(compsize.join(u' ') + QString::fromUtf8(QJsonDocument(reported).toJson())));
        // btrfs filesystem du: "<total> <exclusive> <set shared> <folder>".
        const QStringList du = TestFiles::sh(u"btrfs filesystem du -s --raw \"$0\""_s, {folder})
                                   .split(u'\n')
                                   .last()
                                   .simplified()
                                   .split(u' ');
        QVERIFY2(near(figure("exclusive"), du.value(1)) && near(figure("shared"), du.value(2)),
                 qPrintable(du.join(u' ') + QString::fromUtf8(QJsonDocument(reported).toJson())));
        // The plain text would shrink, the noise would not; the rest is counted as it is.
        QVERIFY(figure("wouldShrink") >= (3 << 20) && figure("wouldSave") > (1 << 20));
        QVERIFY(figure("wouldNotShrink") >= (2 << 20) && figure("wouldNotShrink") < (3 << 20));
        QCOMPARE(reported.value(u"noCopyOnWrite"_s)[u"files"_s].toInteger(), 1);
        QCOMPARE(reported.value(u"unreadable"_s)[u"files"_s].toInteger(), ordinaryUser ? 1 : 0);
        QStringList leftOut;
        for (const QJsonValue &item : reported.value(u"leftOut"_s).toArray())
            leftOut << item[u"path"_s].toString().mid(folder.size()) + u' ' + item[u"reason"_s].toString();
        leftOut.sort();
        QCOMPARE(leftOut, QStringList({u"/.other otherFileSystem"_s, u"/.snapshots/1 readOnlySubvolume"_s}));
        // The subvolume is walked, and all it holds is shared with its snapshot.
        const QJsonArray folders = reported.value(u"folders"_s).toArray();
        QCOMPARE(folders.size(), 2);
        QCOMPARE(folders[1][u"path"_s].toString(), folder + u"/home"_s);
        QCOMPARE(folders[1][u"referenced"_s].toInteger(), 3 << 20);
        QCOMPARE(folders[1][u"exclusive"_s].toInteger(), 0);
    }

private:
    QString loginList() const { return m_env.configHome() + u"/vantor/preferences/loginwindow.plist"_s; }
    QByteArray undecodableFolder() const { return QFile::encodeName(m_env.home()) + "/caf\xe9"; }

    TestEnvironment m_env;
    std::unique_ptr<QProcess> m_helper;
};

QTEST_GUILESS_MAIN(TestVantorCtl)
#include "tst_vantorctl.moc"
