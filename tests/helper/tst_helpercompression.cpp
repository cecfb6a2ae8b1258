// The real helper process compressing real folders: a loop-mounted btrfs and ext4 of the
// test's own, the pane's history controller reading the real store, and a desktop
// notification service on the test's bus that records what the helper tells the user.

#include "prefpane/ArrayController.h"
#include "platform/Bundle.h"
#include "platform/DistributedNotificationCenter.h"
#include "HelperProcess.h"
#include "LoopMount.h"
#include "common/HelperIdentity.h"
#include "common/Notifications.h"
#include "common/VTUtil.h"
#include "prefpane/QFTableView.h"
#include "RecordingAlerts.h"
#include "NotificationRecorder.h"
#include "NotificationServer.h"
#include "TestEnvironment.h"
#include "SystemBusMock.h"
#include "TestFiles.h"
#include "helper/RescanSchedule.h"
#include "prefpane/VTHistoryController.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>

#include <csignal>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>

#define SKIP_WITHOUT_BTRFS()                                                                                           \
    if (!m_btrfs)                                                                                                      \
    QSKIP("a btrfs image cannot be mounted here (needs root and loop devices)")

class TestHelperCompression : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void changesAreCompressedAsTheyCome_data() { asRootAndUser(); }
    void movedFolderKeepsItsRecord_data() { asRootAndUser(); }
    void sharedAndNocowDataAreLeftAlone_data() { asRootAndUser(); }
    void nearlyFullDiskWaitsForSpace_data() { asRootAndUser(); }

private:
    static void asRootAndUser();
    // A column of the folder's record, read from the store file as it is now.
    qint64 field(const QString &folder, const char *column) const
    {
        return sqlite(QStringLiteral("SELECT %1 FROM ZHISTORY WHERE ZFOLDER = '%2'").arg(QLatin1String(column), folder))
            .toLongLong();
    }
    QString sqlite(const QString &sql) const
    {
        return TestEnvironment::sqlite(m_env.productFolder() + QStringLiteral("/history.db"), sql);
    }
    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }
    QVariantMap row(const QString &folder) const;
    qint64 savings(const QString &folder) const { return row(folder).value(QStringLiteral("savings")).toLongLong(); }
    // Asks the helper, as the pane does, to add or remove folders.
    static void post(const char *key, const QStringList &folders)
    {
        DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::Folders),
                                                                             {{QLatin1String(key), folders}});
    }
    // Lists the folder and waits for its first pass.
    void add(const QString &folder)
    {
        controller()->addFolders({folder});
        QTRY_COMPARE_WITH_TIMEOUT(field(folder, "ZSTATUS"), 100, 60000);
    }
    // The record's figure is what compsize measures, and its status is back at 100; the helper lives.
    void expectMeasured(const QString &folder, const QString &what);

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    QFTableView m_table;
    NotificationServer m_notifications;
    HelperProcess m_helper{m_env};
    std::unique_ptr<LoopMount> m_btrfs;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(Bundle::bundleWithPath(TestEnvironment::paneBundle()));
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &m_notifications,
                                   QDBusConnection::ExportAllSlots));
        QVERIFY(bus.registerService(QStringLiteral("org.freedesktop.Notifications")));
        QVERIFY(VTHistoryController::create());
        controller()->awakeFromNib(&m_table);
        m_btrfs = std::make_unique<LoopMount>(m_env.root(), QStringLiteral("btrfs"), 512);
        if (!m_btrfs->mount())
            m_btrfs.reset();
    }

    void cleanup()
    {
        // Listed folders go as the pane removes them: the next helper would look through them all.
        const QString listed = QStringLiteral("SELECT ZFOLDER FROM ZHISTORY WHERE ZENABLED = 1");
        const QStringList folders = sqlite(listed).split(u'\n', Qt::SkipEmptyParts);
        if (m_helper.isRunning() && !folders.isEmpty()) {
            post(Notifications::FoldersToRemoveKey, folders);
            QTRY_VERIFY(sqlite(listed).isEmpty());
        }
        QVERIFY2(m_helper.stop(), "the helper did not quit when asked");
    }

    void btrfsFolderIsCompressed()
    {
        SKIP_WITHOUT_BTRFS();
        const QString folder = m_btrfs->mountPoint() + QStringLiteral("/Documents");
        const QByteArray root = QFile::encodeName(folder);
        QDir().mkpath(folder + QStringLiteral("/src"));
        TestEnvironment::writeFile(folder + QStringLiteral("/report.txt"), TestFiles::text(3 << 20, 1));
        TestEnvironment::writeFile(folder + QStringLiteral("/src/main.cpp"), TestFiles::text(700 << 10, 2));
        TestEnvironment::writeFile(folder + QStringLiteral("/photo.raw"), TestFiles::noise(2 << 20, 3));
        TestEnvironment::writeFile(folder + QStringLiteral("/archive.gz"), TestFiles::text(1 << 20, 4)); // excluded
        // Any bytes may name a file or folder inside a watched folder; only the watched folder's
        // own path must be UTF-8.
        const QList<QByteArray> latin1{"/caf\xe9.txt", "/r\xe9sum\xe9s/notes \xff\xfe.txt"};
        QCOMPARE(::mkdir((root + "/r\xe9sum\xe9s").constData(), 0700), 0);
        TestFiles::writeBytes(root + latin1[0], TestFiles::text(1 << 20, 5));
        TestFiles::writeBytes(root + latin1[1], TestFiles::text(512 << 10, 6));
        // Linux lets folders nest deeper than a path can name; what lies there cannot be opened
        // by path, and the helper says so instead of passing over it in silence.
        // 22 x 201 bytes: past the 4,096 a path may have.
        TestFiles::run(QStringLiteral("perl"),
                       {QStringLiteral("-e"), QStringLiteral(R"(chdir $ARGV[0] or die;
        for (1..22) { mkdir "d" x 200; chdir "d" x 200 or die } open F, ">deep.txt"; print F "too deep")"),
                        folder});
        const auto before = TestFiles::hashes(folder);
        QVERIFY(before.contains(latin1[1]));

        QVERIFY(m_helper.start());
        add(folder);
        const QString record =
            QStringLiteral("SELECT COUNT(*), ZENABLED, ZSAVINGS FROM ZHISTORY WHERE ZFOLDER = '%1'").arg(folder);

        // On disk: the text is stored compressed, the noise and the excluded file are not.
        QVERIFY(LoopMount::isCompressed(folder + QStringLiteral("/report.txt")));
        QVERIFY(!LoopMount::isCompressed(folder + QStringLiteral("/photo.raw")));
        QVERIFY(!LoopMount::isCompressed(folder + QStringLiteral("/archive.gz")));
        // The shell hands compsize the names as bytes.
        for (const char *glob : {"caf?.txt", "r?sum?s/notes*"})
            QVERIFY2(TestFiles::sh(QStringLiteral("compsize \"$0\"/%1").arg(QLatin1String(glob)), {folder})
                         .contains(u"zstd"),
                     glob);
        QCOMPARE(TestFiles::hashes(folder), before);
        QCOMPARE(m_helper.log().count("\" was left out: it could not be opened (File name too long)"), 1);
        // New files are compressed by the file system from now on.
        char property[16] = {};
        QCOMPARE(::getxattr(root.constData(), "btrfs.compression", property, sizeof property - 1), 4);
        QCOMPARE(QByteArray(property), QByteArray("zstd"));

        // The savings are in the table and the total (compsize stops at the items too deep).
        const quint64 saved = quint64(savings(folder));
        QVERIFY2(saved > (4u << 20), qPrintable(QString::number(saved)));
        const quint64 previous = controller()->previousSavings(); // of folders earlier tests removed
        QCOMPARE(controller()->totalSavings(), previous + saved);

        // Removed: the savings move to the summary row.
        controller()->foldersArrayController()->setSelectionIndexes({0});
        controller()->removeFolders();
        QTRY_COMPARE(controller()->previousSavings(), previous + saved);
        QVERIFY(row(folder).isEmpty());
        QCOMPARE(controller()->totalSavings(), previous + saved);
        QCOMPARE(sqlite(record), QStringLiteral("1|0|%1").arg(saved));

        // Added again: the same record, listed again.
        controller()->addFolders({folder + u'/'});
        QTRY_COMPARE_WITH_TIMEOUT(row(folder).value(QStringLiteral("status")).toUInt(), 100u, 60000);
        QCOMPARE(sqlite(record).section(u'|', 0, 1), QStringLiteral("1|1"));
        QTRY_COMPARE(controller()->previousSavings(), previous);
    }

    void killedHelperResumesWithoutHarm()
    {
        SKIP_WITHOUT_BTRFS();
        const QString folder = m_btrfs->mountPoint() + QStringLiteral("/Projects");
        QDir().mkpath(folder);
        for (int i = 0; i < 240; ++i)
            TestEnvironment::writeFile(folder + QStringLiteral("/file%1.txt").arg(i),
                                       TestFiles::text(1 << 20, 100 + i));
        const auto before = TestFiles::hashes(folder);
        TestFiles::run(QStringLiteral("sync"), {});

        QVERIFY(m_helper.start());
        NotificationRecorder recorder;
        controller()->addFolders({folder});
        // Killed as soon as it reports progress: polling the store instead can miss a fast machine.
        QVERIFY(QTest::qWaitFor(
            [&] {
                if (recorder.count(QLatin1String(Notifications::SavingsChanged)) == 0)
                    return false;
                recorder.clear();
                return field(folder, "ZSTATUS") > 0;
            },
            60000));
        m_helper.kill();
        QVERIFY2(field(folder, "ZSTATUS") < 100, "the folder was finished before the helper could be killed");

        QVERIFY(m_helper.start());
        QTRY_COMPARE_WITH_TIMEOUT(field(folder, "ZSTATUS"), 100, 120000);
        QCOMPARE(field(folder, "COUNT(*)"), 1);
        QCOMPARE(TestFiles::hashes(folder), before);
        QVERIFY(LoopMount::isCompressed(folder));

        // Killed at any moment of later starts, with its rescan cache intact, replaced by random
        // bytes, or gone: nothing is lost and the next start ends with the same figure.
        const QString figure =
            QStringLiteral("SELECT ZSTATUS, ZSAVINGS FROM ZHISTORY WHERE ZFOLDER = '%1'").arg(folder);
        const QString done = sqlite(figure);
        const QString cache = m_env.home() + QStringLiteral("/.cache/vantor/files.cache");
        QVERIFY(m_helper.stop());
        QVERIFY(QFileInfo(cache).size() > 0);
        for (int round = 0; round < 3; ++round) {
            if (round == 1)
                TestEnvironment::writeFile(cache, TestFiles::noise(QFileInfo(cache).size(), 60));
            if (round == 2)
                QFile::remove(cache);
            QVERIFY(m_helper.start());
            QTest::qWait(QRandomGenerator::global()->bounded(1500));
            m_helper.kill();
        }
        const QByteArray summary = "\"" + QFile::encodeName(folder) + "\": ";
        const qsizetype passes = m_helper.log().count(summary);
        QVERIFY(m_helper.start());
        QTRY_VERIFY_WITH_TIMEOUT(m_helper.log().count(summary) > passes, 120000);
        QTRY_COMPARE(sqlite(figure), done);
        QCOMPARE(TestFiles::hashes(folder), before);
    }

    // Before the store is replaced under the pane, which does not open it again.
    void changesAreCompressedAsTheyCome()
    {
        QFETCH(bool, asUser);
        SKIP_WITHOUT_BTRFS();
        const QString base =
            m_btrfs->mountPoint() + (asUser ? QStringLiteral("/changes-user") : QStringLiteral("/changes-root"));
        const QString folder = base + QStringLiteral("/Notes");
        const QString outside = base + QStringLiteral("/Downloads");
        QDir().mkpath(folder);
        TestEnvironment::writeFile(folder + QStringLiteral("/a.txt"), TestFiles::text(1 << 20, 40));
        TestEnvironment::writeFile(outside + QStringLiteral("/moved.txt"), TestFiles::text(2 << 20, 41));
        TestEnvironment::writeFile(outside + QStringLiteral("/source.txt"), TestFiles::text(2 << 20, 42));
        TestEnvironment::writeFile(outside + QStringLiteral("/tree/deeper/b.txt"), TestFiles::text(1 << 20, 43));
        TestEnvironment::writeFile(outside + QStringLiteral("/more.txt"), TestFiles::text(512 << 10, 44));
        if (asUser)
            TestFiles::chown(base, HelperProcess::kUser);
        QVERIFY(m_helper.start(asUser));
        add(folder);

        // Each change is followed: the record's figure is what compsize measures for the whole
        // folder (a shared copy saves nothing), the pane hears of it, and the status is back at 100.
        // Scripts with $0 the outside folder, $1 the watched one; then a file that must be compressed.
        const std::pair<const char *, const char *> changes[] = {
            {"mv \"$0/moved.txt\" \"$1\"", "/moved.txt"},
            {"cp --reflink=always \"$0/source.txt\" \"$1/copy.txt\"", nullptr},
            {"cat \"$0/more.txt\" >> \"$1/a.txt\"", "/a.txt"},
            {"cp -r --reflink=never \"$0/tree\" \"$1/tree\"", "/tree/deeper/b.txt"},
            {"rm \"$1/moved.txt\"", nullptr},
            // Copies of compressed files refer to the same extents: what they save counts once.
            {"cp --reflink=always \"$1/a.txt\" \"$1/tree/a.txt\"", nullptr},
            {"cat \"$1/tree/deeper/b.txt\" > \"$1/b.txt\"", nullptr},
            {"rm \"$1/a.txt\"", nullptr},
            {"rm \"$1/b.txt\" \"$1/tree/deeper/b.txt\"", nullptr},
        };
        for (const auto &[script, file] : changes) {
            TestFiles::sh(QString::fromLatin1(script), {outside, folder}, asUser ? HelperProcess::kUser : 0);
            QTRY_VERIFY(field(folder, "ZSTATUS") < 100);
            expectMeasured(folder, QString::fromLatin1(script));
            if (file)
                QVERIFY(!TestFiles::run(QStringLiteral("compsize"), {folder + QLatin1String(file)}).contains(u"none"));
        }
        QCOMPARE(LoopMount::exclusiveBytes(folder + QStringLiteral("/copy.txt")), qint64(0));
        QVERIFY(field(folder, "ZSAVINGS") > (1 << 20));
        QTRY_COMPARE(savings(folder), field(folder, "ZSAVINGS")); // and the pane shows it
    }

    void nestedFoldersAreWatchedAlone_data()
    {
        QTest::addColumn<bool>("innerFirst");
        QTest::newRow("outer added first, then removed") << false;
        QTest::newRow("inner added first, then removed") << true;
    }

    void nestedFoldersAreWatchedAlone()
    {
        QFETCH(bool, innerFirst);
        SKIP_WITHOUT_BTRFS();
        // One listed folder inside another: each record behaves as if it were alone.
        const QString outer =
            m_btrfs->mountPoint() + (innerFirst ? QStringLiteral("/nest-a") : QStringLiteral("/nest-b"));
        const QString inner = outer + QStringLiteral("/Inner");
        TestEnvironment::writeFile(inner + QStringLiteral("/a.txt"), TestFiles::text(1 << 20, 70));
        TestEnvironment::writeFile(outer + QStringLiteral("/b.txt"), TestFiles::text(1 << 20, 71));
        QVERIFY(m_helper.start());
        for (const QString &folder : innerFirst ? QStringList{inner, outer} : QStringList{outer, inner})
            add(folder);
        QCOMPARE(m_helper.watches().size(), 2);

        // A file settling in the inner folder counts in both records.
        TestEnvironment::writeFile(inner + QStringLiteral("/Deeper/c.txt"), TestFiles::text(2 << 20, 72));
        expectMeasured(inner, QStringLiteral("settled in the inner folder"));
        expectMeasured(outer, QStringLiteral("settled in the inner folder"));

        // Removing the one added first leaves the other fully watched.
        const QString gone = innerFirst ? inner : outer;
        const QString kept = innerFirst ? outer : inner;
        post(Notifications::FoldersToRemoveKey, {gone});
        QTRY_COMPARE(field(gone, "ZENABLED"), 0);
        QTRY_COMPARE(m_helper.watches().size(), innerFirst ? 3 : 2);
        QVERIFY(m_helper.isWatching(inner + QStringLiteral("/Deeper")));
        TestEnvironment::writeFile(inner + QStringLiteral("/Deeper/d.txt"), TestFiles::text(2 << 20, 73));
        expectMeasured(kept, QStringLiteral("settled after the other record went"));
        post(Notifications::FoldersToRemoveKey, {kept});
        QTRY_COMPARE(m_helper.watches().size(), 0);
    }

    void lostChangesAreRescanned_data()
    {
        QTest::addColumn<bool>("limited");
        QTest::addColumn<QByteArray>("why");
        // Events lost while the helper is stopped: the kernel's queue holds 16,384.
        QTest::newRow("queue overflow") << false
                                        << QByteArray("changes came faster than they could be read and some were lost");
        QTest::newRow("watch limit") << true << QByteArray("the watch limit is reached at 3 watches (");
    }

    void lostChangesAreRescanned()
    {
        QFETCH(bool, limited);
        QFETCH(QByteArray, why);
        SKIP_WITHOUT_BTRFS();
        const QString folder = m_btrfs->mountPoint() + (limited ? QStringLiteral("/limited") : QStringLiteral("/lost"));
        for (int i = 0; i < 5; ++i)
            TestEnvironment::writeFile(folder + QStringLiteral("/%1/old.txt").arg(i),
                                       TestFiles::text(256 << 10, 80 + i));
        // The ordinary user, below a user namespace with room for 3 watches (the bus must see the
        // same uid): the machine's limit, which other programs share, stays as it is.
        const QStringList wrapper = QStringLiteral("unshare --user --map-root-user sh -c").split(u' ')
            << QStringLiteral("echo 3 > /proc/sys/user/max_inotify_watches && "
                              "exec unshare --user --map-user=65534 --map-group=65534 \"$0\"");
        TestFiles::chown(folder, HelperProcess::kUser);
        QVERIFY(m_helper.start(limited, limited ? wrapper : QStringList()));
        add(folder);
        if (limited) {
            QCOMPARE(m_helper.watches().size(), 3);
        } else {
            ::kill(pid_t(m_helper.pid()), SIGSTOP);
            for (int i = 0; i < 9000; ++i) // created and closed: two events each
                TestEnvironment::writeFile(folder + QStringLiteral("/4/%1").arg(i), QByteArray());
        }
        // In the watched folder itself: seen through the watch, or found by the rescan.
        TestEnvironment::writeFile(folder + QStringLiteral("/new.txt"), TestFiles::text(256 << 10, 90));
        TestFiles::chown(folder + QStringLiteral("/new.txt"), HelperProcess::kUser);
        ::kill(pid_t(m_helper.pid()), SIGCONT);
        QTRY_VERIFY_WITH_TIMEOUT(LoopMount::isCompressed(folder + QStringLiteral("/new.txt")), 60000);
        expectMeasured(folder, QString::fromLatin1(why));
        QCOMPARE(m_helper.log().count(why), 1);
    }

    void movedFolderKeepsItsRecord()
    {
        QFETCH(bool, asUser);
        SKIP_WITHOUT_BTRFS();
        const QString base =
            m_btrfs->mountPoint() + (asUser ? QStringLiteral("/moves-user") : QStringLiteral("/moves-root"));
        const QStringList names{base + QStringLiteral("/Project"), base + QStringLiteral("/Renamed"),
                                base + QStringLiteral("/Archive/Moved"), base + QStringLiteral("/Restored")};
        QDir().mkpath(base + QStringLiteral("/Archive"));
        TestEnvironment::writeFile(names[0] + QStringLiteral("/plan.txt"), TestFiles::text(1 << 20, 50));
        if (asUser)
            TestFiles::chown(base, HelperProcess::kUser);
        QVERIFY(m_helper.start(asUser));
        add(names[0]);
        const qint64 saved = savings(names[0]);
        QVERIFY(saved > 0);
        const QString record =
            QStringLiteral("SELECT COUNT(*), ZFOLDER FROM ZHISTORY WHERE ZFOLDER LIKE '%1%'").arg(base);

        // Renamed while the pane shows it, then moved while the helper is not running: one record
        // follows it, path and alias together, and the table shows it with its savings.
        QVERIFY(QFile::rename(names[0], names[1]));
        QTRY_COMPARE(savings(names[1]), saved);
        QCOMPARE(sqlite(record), QStringLiteral("1|") + names[1]);
        QVERIFY(controller()->folders().value().contains(names[1]));
        QVERIFY(m_helper.stop());
        QVERIFY(QFile::rename(names[1], names[2]));
        QVERIFY(m_helper.start(asUser));
        QTRY_COMPARE(savings(names[2]), saved);
        QCOMPARE(sqlite(record), QStringLiteral("1|") + names[2]);
        QTRY_COMPARE(row(names[2]).value(QStringLiteral("status")).toUInt(), 100u);

        // Removed from the pane, it is no longer watched.
        QTRY_VERIFY(m_helper.isWatching(names[2]));
        controller()->foldersArrayController()->setSelectionIndexes({0}); // the one row listed
        controller()->removeFolders();
        QTRY_VERIFY(row(names[2]).isEmpty());
        QTRY_VERIFY(!m_helper.isWatching(names[2]));

        // Listed again, and just before it is renamed its store is replaced by a copy with the same
        // records (a backup put back; the old file's log and index go aside with it): the record
        // still follows it, and the folder is still kept compressed.
        controller()->addFolders({names[2]});
        QTRY_COMPARE_WITH_TIMEOUT(row(names[2]).value(QStringLiteral("status")).toUInt(), 100u, 60000);
        const uid_t uid = asUser ? HelperProcess::kUser : 0;
        TestFiles::sh(
            QStringLiteral("cd \"$0\" && sqlite3 history.db '.backup copy.db' && ln history.db old-history.db && "
                           "mv history.db-wal old-history.db-wal && mv history.db-shm old-history.db-shm && "
                           "mv copy.db history.db"),
            {m_env.productFolder()}, uid);
        // The pane keeps the old file open: it is put back, with nothing listed, for the next tests.
        const auto putBack = qScopeGuard([this] {
            m_helper.stop();
            TestFiles::sh(
                QStringLiteral("cd \"$0\" && for f in history.db history.db-wal history.db-shm; do "
                               "mv \"old-$f\" \"$f\"; done && sqlite3 history.db 'UPDATE ZHISTORY SET ZENABLED = 0'"),
                {m_env.productFolder()});
        });
        QVERIFY(QFile::rename(names[2], names[3]));
        QTRY_COMPARE(sqlite(record), QStringLiteral("1|") + names[3]);
        TestFiles::sh(QStringLiteral("cp --reflink=never \"$0/plan.txt\" \"$0/copy.txt\""), {names[3]}, uid);
        expectMeasured(names[3], QStringLiteral("copied in after the store was replaced"));
        QVERIFY(m_helper.isWatching(names[3]));
    }

    void ext4FolderIsLeftAlone()
    {
        LoopMount ext4(m_env.root(), QStringLiteral("ext4"), 64);
        if (!ext4.mount())
            QSKIP(qPrintable(QStringLiteral("an ext4 image cannot be mounted here: ") + ext4.reason()));
        const QString folder = ext4.mountPoint() + QStringLiteral("/Music");
        TestEnvironment::writeFile(folder + QStringLiteral("/lyrics.txt"), TestFiles::text(1 << 20, 6));
        const auto before = TestFiles::hashes(folder);
        const QDateTime changed = QFileInfo(folder + QStringLiteral("/lyrics.txt")).metadataChangeTime();

        QVERIFY(m_helper.start());
        m_notifications.calls.clear();
        add(folder);
        QCOMPARE(savings(folder), 0);
        QTRY_COMPARE(m_notifications.calls.size(), 1);
        QVERIFY(m_notifications.calls.first().summary.contains(folder));
        QVERIFY2(m_notifications.calls.first().body.contains(QLatin1String(" is on ext4, ")),
                 qPrintable(m_notifications.calls.first().body));
        QCOMPARE(TestFiles::hashes(folder), before);
        QCOMPARE(QFileInfo(folder + QStringLiteral("/lyrics.txt")).metadataChangeTime(), changed);

        // The pane deletes an unusable store; the helper must not keep writing to the old file. The
        // old one is put back afterwards for this pane, which keeps it open, and the next tests.
        post(Notifications::FoldersToRemoveKey, {folder});
        QTRY_COMPARE(field(folder, "ZENABLED"), 0);
        TestFiles::sh(QStringLiteral("cd \"$0\" && for f in history.db*; do mv \"$f\" \"old-$f\"; done"),
                      {m_env.productFolder()});
        post(Notifications::FoldersToAddKey, {folder});
        QTRY_COMPARE(sqlite(QStringLiteral("SELECT ZFOLDER, ZSTATUS FROM ZHISTORY")), folder + QStringLiteral("|100"));
        QVERIFY(m_helper.stop());
        TestFiles::sh(QStringLiteral("cd \"$0\" && rm history.db* && for f in old-*; do mv \"$f\" \"${f#old-}\"; done"),
                      {m_env.productFolder()});
    }

    void updateCheckIsAnsweredByNotification()
    {
        QVERIFY(m_helper.start());
        // Whatever it inherited (here the test's own output), the helper reads nothing and writes
        // its standard output nowhere and its standard error to its log.
        const QString fds = QStringLiteral("/proc/%1/fd/").arg(m_helper.pid());
        QCOMPARE(QFile::symLinkTarget(fds + u'0'), QStringLiteral("/dev/null"));
        QCOMPARE(QFile::symLinkTarget(fds + u'1'), QStringLiteral("/dev/null"));
        QCOMPARE(QFile::symLinkTarget(fds + u'2'),
                 m_env.home() + QStringLiteral("/.local/state/vantor/VantorHelper.log"));
        m_notifications.calls.clear();
        DistributedNotificationCenter::defaultCenter()->postNotificationName(
            QLatin1String(Notifications::HelperShouldCheckForUpdates));
        QTRY_COMPARE(m_notifications.calls.size(), 1);
        QVERIFY(m_notifications.calls.first().body.contains(QLatin1String("package manager")));
    }

    void rescanWaitsForIdleHelper()
    {
        // Due while the helper is busy: put off to the next turn of the timer, neither lost nor polled for.
        int asked = 0;
        RescanSchedule schedule([&] { return ++asked == 1; }, 100, 300);
        QSignalSpy due(&schedule, &RescanSchedule::due);
        QTRY_COMPARE(due.size(), 1);
        QCOMPARE(asked, 2);
    }

    void sharedAndNocowDataAreLeftAlone()
    {
        QFETCH(bool, asUser);
        SKIP_WITHOUT_BTRFS();
        // A home in its own subvolume with a read-only snapshot, as Snapper and Timeshift keep them.
        const QString home = m_btrfs->mountPoint() + (asUser ? QStringLiteral("/user") : QStringLiteral("/root"));
        const QString folder = home + QStringLiteral("/Documents");
        const QByteArray root = QFile::encodeName(folder);
        QVERIFY(TestFiles::sh(QStringLiteral("btrfs subvolume create \"$0\""), {home}).contains(home));
        QDir().mkpath(folder);
        TestEnvironment::writeFile(folder + QStringLiteral("/old.txt"), TestFiles::text(6 << 20, 20));
        // Many folders: reading them must not change their metadata, which the snapshot shares.
        for (int i = 0; i < 600; ++i)
            TestEnvironment::writeFile(folder + QStringLiteral("/letters/%1/letter.txt").arg(i),
                                       TestFiles::text(8192, 100 + i));
        if (asUser)
            TestFiles::chown(home, HelperProcess::kUser);
        // Last read long ago, as copies keep their times: reading would mark them read again. The
        // snapshot lies inside the folder, beside a writable subvolume.
        TestFiles::sh(QStringLiteral("find \"$0\" -exec touch -a -d 2020-01-01 {} + && sync && btrfs subvolume "
                                     "snapshot -r \"$1\" \"$0/snapshot\" && btrfs subvolume create \"$0/Projects\""),
                      {folder, home});
        // Written since: new data (in the subvolume too), a reflinked copy, and a file with copy-on-write off.
        TestEnvironment::writeFile(folder + QStringLiteral("/new.txt"), TestFiles::text(3 << 20, 21));
        TestEnvironment::writeFile(folder + QStringLiteral("/Projects/plan.txt"), TestFiles::text(2 << 20, 25));
        TestEnvironment::writeFile(folder + QStringLiteral("/copied.txt"), TestFiles::text(3 << 20, 22));
        TestFiles::sh(
            QStringLiteral("cp --reflink=always \"$0/copied.txt\" \"$0/copy.txt\" && touch \"$0/disk.img\" && "
                           "chattr +C \"$0/disk.img\""),
            {folder});
        TestEnvironment::writeFile(folder + QStringLiteral("/disk.img"), TestFiles::text(4 << 20, 23));
        if (asUser)
            TestFiles::sh(
                QStringLiteral("cd \"$0\" && chown -R 65534:65534 new.txt copied.txt copy.txt disk.img Projects"),
                {folder});
        // Another user's files: one readable, not the helper's to rewrite (it fails, is told, and
        // saves nothing), one it may not even read, named by bytes that are not one line of UTF-8.
        if (asUser) {
            TestEnvironment::writeFile(folder + QStringLiteral("/shared-by-root.txt"), TestFiles::text(1 << 20, 24));
            TestFiles::writeBytes(root + "/l\xe9gal\n.txt", TestFiles::text(1 << 20, 26));
        }
        const auto before = TestFiles::hashes(folder);
        const qint64 usedBefore = m_btrfs->usage(QStringLiteral("Used:"));
        const qsizetype logged = m_helper.log().size();

        QVERIFY(m_helper.start(asUser));
        m_notifications.calls.clear();
        add(folder);
        const qint64 usedAfter = m_btrfs->usage(QStringLiteral("Used:"));
        const qint64 saved = field(folder, "ZSAVINGS");
        const qint64 newSaved = LoopMount::compsizeSavings(folder + QStringLiteral("/new.txt"))
            + LoopMount::compsizeSavings(folder + QStringLiteral("/Projects"));
        qInfo("used %lld -> %lld; %lld saved, the new files %lld", usedBefore, usedAfter, saved, newSaved);
        // Only the new files were the folder's own: they alone were compressed and counted, and the file
        // system's used space did not grow (1% of the folder's 24 MB allowed for metadata). The
        // snapshot's files still share all their data, none of it compressed.
        const qint64 noise = (24 << 20) / 100;
        QVERIFY(newSaved > (1 << 20) && LoopMount::isCompressed(folder + QStringLiteral("/Projects")));
        QVERIFY2(qAbs(saved - newSaved) <= newSaved / 100, qPrintable(QString::number(saved)));
        QVERIFY(usedAfter - usedBefore <= noise);
        QVERIFY(usedBefore - usedAfter >= saved - noise);
        for (const char *name : {"/old.txt", "/copied.txt", "/copy.txt", "/snapshot"})
            QCOMPARE(LoopMount::exclusiveBytes(folder + QLatin1String(name)), qint64(0));
        QVERIFY(!LoopMount::isCompressed(folder + QStringLiteral("/snapshot")));
        QCOMPARE(LoopMount::compsizeSavings(folder + QStringLiteral("/disk.img")), qint64(0));
        QCOMPARE(TestFiles::hashes(folder), before);
        QTRY_COMPARE(m_notifications.calls.size(), 1);
        QCOMPARE(m_notifications.calls.first().body,
                 QStringLiteral("%1 in Documents is shared with snapshots or copies and was left as it is: compressing "
                                "it now would take more space until those are deleted")
                     .arg(VTUtil::getPrettySize((12u << 20) + 600 * 8192)));
        // The subvolume is watched as any folder: what is written there, at any depth, counts.
        TestEnvironment::writeFile(folder + QStringLiteral("/Projects/src/more.txt"), TestFiles::text(2 << 20, 27));
        if (asUser)
            TestFiles::chown(folder + QStringLiteral("/Projects/src"), HelperProcess::kUser);
        expectMeasured(folder, QStringLiteral("written in the subvolume"));

        // What was left alone is named once with its reason, on a line of its own and in the pass's
        // line, and a later pass over the same files says nothing of it again.
        QByteArrayList told{root + "/disk.img\" was left as it is: copy-on-write is off",
                            "1 file with copy-on-write off: \"disk.img\"",
                            root + "/snapshot\" was left out: it is a read-only subvolume",
                            "1 read-only subvolume (a snapshot): \"snapshot\""};
        if (asUser)
            told << root + "/shared-by-root.txt\" was left as it is: it could not be compressed (Permission denied)"
                 << root + "/l\\xe9gal\\n.txt\" was left as it is: it could not be opened (Permission denied)"
                 << "1 file that could not be opened (Permission denied): \"l\\xe9gal\\n.txt\"";
        const auto notToldOnce = [&] {
            for (const QByteArray &line : std::as_const(told)) {
                if (m_helper.log().mid(logged).count(line) != 1)
                    return line;
            }
            return QByteArray();
        };
        QCOMPARE(notToldOnce(), QByteArray());
        const QByteArray summary = "\"" + root + "\": ";
        const qsizetype passes = m_helper.log().count(summary);
        post(Notifications::FoldersToAddKey, {folder});
        QTRY_COMPARE_WITH_TIMEOUT(m_helper.log().count(summary), passes + 1, 60000);
        QCOMPARE(notToldOnce(), QByteArray());
        QCOMPARE(m_notifications.calls.size(), 1);
    }

    void batteryPausesCompression_data()
    {
        QTest::addColumn<bool>("asUser");
        QTest::addColumn<bool>("upower");
        QTest::addColumn<QString>("profile"); // with UPower and "balanced", on battery
        QTest::newRow("on battery") << false << true << QStringLiteral("balanced");
        QTest::newRow("power saver as ordinary user") << true << true << QStringLiteral("power-saver");
        QTest::newRow("no UPower") << false << false << QStringLiteral("balanced");
    }

    void batteryPausesCompression()
    {
        QFETCH(bool, asUser);
        QFETCH(bool, upower);
        QFETCH(QString, profile);
        SKIP_WITHOUT_BTRFS();
        const bool onBattery = upower && profile == QLatin1String("balanced");
        SystemBusMock power;
        QVERIFY(power.start(upower) && power.setProfile(profile) && (!upower || power.setOnBattery(onBattery)));
        const QString folder = m_btrfs->mountPoint() + u'/' + QLatin1String(QTest::currentDataTag());
        TestEnvironment::writeFile(folder + QStringLiteral("/a.txt"), TestFiles::text(2 << 20, 95));
        if (asUser)
            TestFiles::chown(folder, HelperProcess::kUser);
        const qsizetype logged = m_helper.log().size();
        QVERIFY(m_helper.start(asUser));
        controller()->addFolders({folder});
        if (upower) {
            // Listed, and left as it is however long the helper has.
            QTRY_COMPARE(field(folder, "COUNT(*)"), 1);
            QTest::qWait(4000);
            QVERIFY(field(folder, "ZSTATUS") < 100 && !LoopMount::isCompressed(folder));
            // As anybody on the bus asks it, vantorctl among them.
            QCOMPARE(TestFiles::run(QStringLiteral("gdbus"),
                                    {QStringLiteral("call"), QStringLiteral("--session"), QStringLiteral("--dest"),
                                     HelperIdentity::busName(), QStringLiteral("--object-path"),
                                     HelperIdentity::statusPath(), QStringLiteral("--method"),
                                     HelperIdentity::statusInterface() + QStringLiteral(".Status")})
                         .section(u',', 0, 1),
                     onBattery ? QStringLiteral("('waiting', 'battery'") : QStringLiteral("('waiting', 'power saver'"));
            QVERIFY(onBattery ? power.setOnBattery(false) : power.setProfile(QStringLiteral("balanced")));
        }
        QTRY_COMPARE_WITH_TIMEOUT(field(folder, "ZSTATUS"), 100, 10000);
        expectMeasured(folder, folder);
        const QByteArray log = m_helper.log().mid(logged);
        // One line for the change of state, none for the power supply's own.
        QCOMPARE(log.count("waiting: on battery power") + log.count("waiting: power saver mode"), upower ? 1 : 0);
        QCOMPARE(log.count("UPower does not answer on the system bus"), upower ? 0 : 1);
    }

    void nearlyFullDiskWaitsForSpace()
    {
        QFETCH(bool, asUser);
        const QString dir = m_env.root() + (asUser ? QStringLiteral("/full-user") : QStringLiteral("/full-root"));
        QDir().mkpath(dir);
        LoopMount disk(dir, QStringLiteral("btrfs"), 256);
        if (!disk.mount())
            QSKIP(qPrintable(QStringLiteral("a btrfs image cannot be mounted here: ") + disk.reason()));
        // The helper lets go of the file system before it is unmounted, also when a check fails.
        const auto stop = qScopeGuard([this] { m_helper.stop(); });
        const QString folder = disk.mountPoint() + QStringLiteral("/Documents");
        for (int i = 0; i < 10; ++i)
            TestEnvironment::writeFile(folder + QStringLiteral("/report%1.txt").arg(i),
                                       TestFiles::text((3 << 20) + i * 65536, 30 + i));
        if (asUser)
            TestFiles::chown(folder, HelperProcess::kUser);
        const auto before = TestFiles::hashes(folder);
        // 8 MB left, then 5 MB: less than the helper's margin and a step.
        const auto freeSpace = [&] { return disk.usage(QStringLiteral("Free (statfs, df):")); };
        QVERIFY(TestFiles::fallocate(disk.mountPoint() + QStringLiteral("/filler"), freeSpace() - (8 << 20)));
        QVERIFY(TestFiles::fallocate(disk.mountPoint() + QStringLiteral("/more"), freeSpace() - (5 << 20)));
        const qint64 fullFree = freeSpace();

        QVERIFY(m_helper.start(asUser));
        m_notifications.calls.clear();
        controller()->addFolders({folder});
        QTRY_COMPARE_WITH_TIMEOUT(m_notifications.calls.size(), 1, 30000);
        QVERIFY2(m_notifications.calls.first().body.startsWith(
                     QLatin1String("Documents waits to be compressed: its disk is nearly full. Free ")),
                 qPrintable(m_notifications.calls.first().body));
        QVERIFY(field(folder, "ZSTATUS") < 100);
        QCOMPARE(TestFiles::hashes(folder), before);
        QVERIFY(freeSpace() >= fullFree - (1 << 20) / 10);

        // Space comes back: the helper goes on by itself, in small steps, and ends with more free.
        QFile::remove(disk.mountPoint() + QStringLiteral("/more"));
        const qint64 startFree = freeSpace();
        QTRY_COMPARE_WITH_TIMEOUT(field(folder, "ZSTATUS"), 100, 120000);
        const qint64 endFree = freeSpace();
        qInfo("free space: %lld full, %lld with room again, %lld at the end", fullFree, startFree, endFree);
        QVERIFY(endFree > startFree + (10 << 20));
        QVERIFY(field(folder, "ZSAVINGS") > (10 << 20));
        QCOMPARE(TestFiles::hashes(folder), before);
        QCOMPARE(m_notifications.calls.size(), 1);
    }
};

void TestHelperCompression::asRootAndUser()
{
    QTest::addColumn<bool>("asUser");
    QTest::newRow("root") << false;
    QTest::newRow("ordinary user") << true;
}

QVariantMap TestHelperCompression::row(const QString &folder) const
{
    for (const QVariantMap &entry : controller()->foldersArrayController()->arrangedObjects()) {
        if (entry.value(QStringLiteral("folder")).toString() == folder)
            return entry;
    }
    return {};
}

void TestHelperCompression::expectMeasured(const QString &folder, const QString &what)
{
    qint64 measured = -1;
    const auto matches = [&] {
        measured = LoopMount::compsizeSavings(folder);
        return field(folder, "ZSTATUS") == 100 && qAbs(field(folder, "ZSAVINGS") - measured) <= measured / 100;
    };
    const bool matched = QTest::qWaitFor([&] { return !m_helper.isRunning() || matches(); }, 60000);
    // A helper that died says why at the end of its log (a sanitizer's report ends it there).
    if (!m_helper.isRunning())
        qWarning("the helper's log ends:\n%s", m_helper.log().right(12000).constData());
    QVERIFY(m_helper.isRunning());
    QVERIFY2(matched, qPrintable(what + QStringLiteral(": %1 measured").arg(measured)));
}

QTEST_MAIN(TestHelperCompression)
#include "tst_helpercompression.moc"
