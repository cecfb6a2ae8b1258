// The pane driven as the host drives it on a real bus: settings, notifications, icon bubbles,
// and the history of a real store another program writes. Start-up posts are the host suite's.

#include "FakeWorkspace.h"
#include "NotificationRecorder.h"
#include "PaneFixture.h"
#include "RecordingAlerts.h"
#include "common/Notifications.h"
#include "common/VTDefaultsController.h"
#include "common/VTUtil.h"
#include "gui/FolderChooser.h"
#include "platform/DistributedNotificationCenter.h"
#include "prefpane/ArrayController.h"
#include "prefpane/BubbleLayer.h"
#include "prefpane/QFTableView.h"
#include "prefpane/VTHistoryController.h"

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QDropEvent>
#include <QFileInfo>
#include <QLabel>
#include <QMimeData>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QTabWidget>
#include <QTest>
#include <QTimer>

#include <optional>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

// Answers like a person at the chooser would.
class AnsweringChooser : public FolderChooser
{
public:
    using FolderChooser::FolderChooser;
    void beginSheetForDirectory(QWidget *window, const QString &directory, std::function<void(int)> done) override
    {
        shownOn = window;
        startedIn = directory;
        setFilenames(code == OK ? paths : QList<QByteArray>());
        QTimer::singleShot(0, this, [done] { done(code); });
    }

    static inline int code = 0;
    static inline QList<QByteArray> paths;
    static inline QWidget *shownOn = nullptr;
    static inline QString startedIn;
};

} // namespace

class TestVantorPref : public QObject
{
    Q_OBJECT

private:
    VantorPref &pane() { return m_ui->pane; }
    VTDefaultsController *store() const { return VTDefaultsController::sharedDefaultsController(); }
    template <typename T>
    T *child(const char *name)
    {
        return pane().mainView()->findChild<T *>(QLatin1String(name));
    }
    QList<BubbleLayer *> bubbles() { return pane().iconLayer()->findChildren<BubbleLayer *>(); }
    static QAbstractAnimation *fade(BubbleLayer *bubble) { return bubble->animationForKey(u"opacity"_s); }
    // A point of the layer in the icon's y-up coordinates.
    QPointF iconPoint(const QPointF &p) { return {p.x(), pane().iconLayer()->height() - p.y()}; }

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    FakeWorkspace m_workspace;
    std::optional<PaneFixture> m_ui;
    QByteArray m_dirA, m_dirB, m_file, m_undecodable;

    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }
    QFTableView *table() { return pane().foldersTableView; }
    QString sqlite(const QString &sql) const
    {
        return TestEnvironment::sqlite(m_env.productFolder() + u"/history.db"_s, sql);
    }

    // Another program tells the pane that savings changed.
    void refreshFromAnotherProgram()
    {
        QSignalSpy spy(controller(), &VTHistoryController::totalSavingsChanged);
        TestEnvironment::postWithGdbus(u"vantorSavingsChanged"_s, u"{'from': <'gdbus'>}"_s);
        QVERIFY(spy.wait(5000));
    }

    // What an action posts to the helper about folders: empty when nothing, a count when more than once.
    QVariantMap postOf(const std::function<void()> &action)
    {
        NotificationRecorder recorder;
        action();
        QTest::qWait(50);
        recorder.settle();
        const int posts = recorder.count(QLatin1String(Notifications::Folders));
        return posts > 1 ? QVariantMap{{u"count"_s, posts}} : recorder.userInfo(QLatin1String(Notifications::Folders));
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Stored before the pane loads: the boxes must start from the file, not from their defaults.
        VTDefaultsController::create();
        store()->setVisible(false);
        m_ui.emplace();
        pane().mainViewDidLoad();
        QCOMPARE(pane().versionNumberTextField->text(), u"1.0.0"_s);
        const QByteArray base = QFile::encodeName(m_env.home());
        m_dirA = base + "/Photos";
        m_dirB = base + "/Música";
        m_file = base + "/notes.txt";
        m_undecodable = base + "/bad\xff";
        QVERIFY(QDir().mkpath(QFile::decodeName(m_dirA)));
        QVERIFY(QDir().mkpath(QFile::decodeName(m_dirB)));
        TestEnvironment::writeFile(QFile::decodeName(m_file), "x");
        QCOMPARE(::mkdir(m_undecodable.constData(), 0700), 0);
        FolderChooser::setFactory([](QObject *parent) { return new AnsweringChooser(parent); });
    }

    // Each case: the settings tab, and three records shown through another program's notification.
    void init()
    {
        pane().tabView->setCurrentWidget(child<QWidget>("settingsTab"));
        sqlite(u"DELETE FROM ZHISTORY;"_s);
        controller()->updatePreviousSavings();
        controller()->foldersArrayController()->setSelectionIndexes({});
        sqlite(QStringLiteral("INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) VALUES "
                              "('/home/u/Music', 40, 1000, 1), ('/home/u/Documents', 100, 2048, 1), "
                              "('/home/u/Old', 100, 5, 0);"));
        refreshFromAnotherProgram();
        m_alerts.clear();
    }

    void showHistoryBringsFirstTab()
    {
        QVERIFY(pane().tabView->currentIndex() != 0);
        DistributedNotificationCenter::defaultCenter()->postNotificationName(u"showHistory"_s);
        QTRY_COMPARE(pane().tabView->currentIndex(), 0);
    }

    // The file's keys and the notifications of the store are the store suite's.
    void boxesGoThroughTheStore_data()
    {
        QTest::addColumn<QString>("box");
        QTest::addColumn<QString>("property");
        QTest::addColumn<bool>("stored"); // as the file was before the pane loaded
        QTest::addColumn<QString>("notification"); // all the box posts when switched, if checked
        QTest::newRow("visible") << "visibleCheckBox"
                                 << "visible" << false << Notifications::Visible;
        QTest::newRow("checkUpdates") << "checkUpdatesCheckBox"
                                      << "checkForUpdates" << true << QString();
        QTest::newRow("runAtLogin") << "runAtLoginCheckBox"
                                    << "autorunAtLogin" << true << QString();
    }
    void boxesGoThroughTheStore()
    {
        QFETCH(QString, box);
        QFETCH(QString, property);
        QFETCH(bool, stored);
        QFETCH(QString, notification);
        QCheckBox *checkBox = child<QCheckBox>(qPrintable(box));
        QCOMPARE(checkBox->isChecked(), stored); // this function leaves it so
        for (const bool on : {!stored, stored}) {
            NotificationRecorder recorder;
            // On the box itself: a wide check box takes clicks only on its box and label.
            QTest::mouseClick(checkBox, Qt::LeftButton, {}, QPoint(8, checkBox->height() / 2));
            QCOMPARE(checkBox->isChecked(), on);
            QCOMPARE(store()->property(qPrintable(property)).toBool(), on);
            // Posted once, and only from the pane's own context.
            pane().observeValueForKeyPath(property, store(), {}, nullptr);
            recorder.settle();
            if (!notification.isEmpty())
                QCOMPARE(recorder.names(), QStringList{notification});
        }
        // A change made elsewhere shows in the box.
        for (const bool value : {!stored, stored}) {
            QVERIFY(store()->setProperty(qPrintable(property), value));
            QCOMPARE(checkBox->isChecked(), value);
        }
    }

    void buttons()
    {
        NotificationRecorder recorder;
        QTest::mouseClick(child<QPushButton>("checkNowButton"), Qt::LeftButton);
        recorder.settle();
        QCOMPARE(recorder.count(QLatin1String(Notifications::HelperShouldCheckForUpdates)), 1);
        QTest::mouseClick(child<QPushButton>("helpButton"), Qt::LeftButton);
        QCOMPARE(m_workspace.openedURLs, QList<QUrl>{VantorPref::faqAddress()});
        QTest::mouseClick(child<QPushButton>("uninstallButton"), Qt::LeftButton);
        QVERIFY(pane().uninstallSheet->isVisible());
        pane().cancelSheet(nullptr);
    }

    void clickedIconSendsOneBubbleThatIsRemoved()
    {
        QTest::mouseClick(pane().iconButton, Qt::LeftButton);
        QCOMPARE(bubbles().size(), 1);
        BubbleLayer *bubble = bubbles().first();
        QCOMPARE(bubble->size(), QSize(20, 20));
        QCOMPARE(iconPoint(bubble->position()), QPointF(100, 35));
        QCOMPARE(bubble->presentationOpacity(), 0.0); // invisible until animated
        QTRY_VERIFY(fade(bubble));
        // Shown at once, not only once the fade begins.
        QCOMPARE(bubble->presentationOpacity(), 1.0);
        QTRY_COMPARE(bubbles().size(), 0);
    }

    void eachBubbleEndsByItsOwnAnimation()
    {
        pane().addBubble();
        pane().addBubble();
        const QList<BubbleLayer *> both = bubbles();
        QCOMPARE(both.size(), 2);
        QTRY_VERIFY(fade(both[0]) && fade(both[1]));
        // The second's end removes only the second, whatever the order.
        pane().animationDidStop(fade(both[1]), true);
        QCOMPARE(bubbles(), QList<BubbleLayer *>{both[0]});
        // Interrupted, the first stays, faded out.
        fade(both[0])->stop();
        QTest::qWait(400);
        QCOMPARE(bubbles(), QList<BubbleLayer *>{both[0]});
        QCOMPARE(both[0]->presentationOpacity(), 0.0);
        both[0]->removeFromSuperlayer();
        QTRY_COMPARE(bubbles().size(), 0);
    }

    void pathAndFade_data()
    {
        QTest::addColumn<qreal>("progress");
        QTest::addColumn<QPointF>("expected");
        QTest::addColumn<qreal>("opacity");
        QTest::newRow("start below the centre") << 0.0 << QPointF(100, 35) << 1.0;
        QTest::newRow("arc passes lower right") << 0.25 << QPointF(100 + 15 * M_SQRT1_2, 50 - 15 * M_SQRT1_2) << 1.0;
        QTest::newRow("arc ends right of centre") << 0.5 << QPointF(115, 50) << 1.0;
        QTest::newRow("line midway, fade begins") << 0.75 << QPointF(117.5, 92.5) << 1.0;
        QTest::newRow("fading") << 0.875 << QPointF(118.75, 113.75) << 0.5067;
        QTest::newRow("end") << 1.0 << QPointF(120, 135) << 0.0;
    }
    void pathAndFade()
    {
        QFETCH(qreal, progress);
        QFETCH(QPointF, expected);
        QFETCH(qreal, opacity);
        std::unique_ptr<QVariantAnimation> animation(pane().bubbleAnimation());
        QCOMPARE(animation->duration(), 300);
        const QPointF at = static_cast<PathAnimation *>(animation.get())->pointAt(progress);
        const QPointF p = iconPoint(at);
        // The arc is drawn as a cubic curve: a quarter circle is met to within a hundredth.
        QVERIFY2(QLineF(p, expected).length() < 0.05, qPrintable(u"(%1, %2)"_s.arg(p.x()).arg(p.y())));
        // The whole bubble is on its layer: nothing clipped.
        QVERIFY(QRectF(pane().iconLayer()->rect()).contains(QRectF(at - QPointF(10, 10), QSizeF(20, 20))));
        std::unique_ptr<QVariantAnimation> fading(pane().opacityAnimation());
        fading->setCurrentTime(int(progress * 300));
        QVERIFY(qAbs(fading->currentValue().toReal() - opacity) < 0.001);
    }

    // Where the summary row sorts is the sort descriptor's suite.
    void recordsFromAnotherProcess()
    {
        table()->sortByColumn(0, Qt::DescendingOrder); // Music, Documents, Other
        QCOMPARE(controller()->totalSavings(), quint64(3053));
        QCOMPARE(controller()->previousSavings(), quint64(5));
        auto *arranged = controller()->foldersArrayController();
        const QList<QVariantMap> rows = arranged->arrangedObjects();
        QCOMPARE(rows.size(), 3);
        QCOMPARE(rows.at(0).value(u"folder"_s).toString(), u"/home/u/Music"_s);
        QCOMPARE(rows.at(0).value(u"savings"_s).toULongLong(), quint64(1000));
        QCOMPARE(rows.last(), controller()->historyEntryForSavings(5));
        // The summary row is disabled and cannot be selected; folder rows can.
        QCOMPARE(arranged->flags(arranged->index(2, 0)) & (Qt::ItemIsSelectable | Qt::ItemIsEnabled), Qt::NoItemFlags);

        // The selection survives a refresh that keeps the count.
        arranged->setSelectionIndexes({1});
        // -1 as stored is 2^64 - 1: with the other 1005 bytes the total wraps to 1004.
        sqlite(u"UPDATE ZHISTORY SET ZSAVINGS = -1 WHERE ZFOLDER = '/home/u/Documents';"_s);
        refreshFromAnotherProgram();
        QCOMPARE(controller()->totalSavings(), quint64(1004));
        QCOMPARE(arranged->selectionIndexes(), QList<int>{1});

        // The summary row goes: the count changes and the selection is not restored.
        sqlite(u"UPDATE ZHISTORY SET ZSAVINGS = 0 WHERE ZENABLED = 0;"_s);
        refreshFromAnotherProgram();
        QCOMPARE(arranged->rowCount(), 2);
        QVERIFY(arranged->selectionIndexes().isEmpty());
        // With no previous savings the last row is an ordinary, selectable row.
        QVERIFY(arranged->flags(arranged->index(1, 0)) & Qt::ItemIsSelectable);
    }

    void addFolders_data()
    {
        QTest::addColumn<QStringList>("paths");
        QTest::addColumn<QStringList>("posted"); // empty: nothing posted
        QTest::addColumn<int>("sheets");
        QTest::newRow("empty") << QStringList() << QStringList() << 0;
        QTest::newRow("only volumes") << QStringList{u"/Volumes/Disk/a"_s, u"/Volumes/B"_s} << QStringList() << 1;
        QTest::newRow("mix keeps order and duplicates")
            << QStringList{u"/home/u/b"_s, u"/Volumes/Disk/x"_s, u"/home/u/a"_s, u"/home/u/b"_s, u"/Volumes"_s}
            << QStringList{u"/home/u/b"_s, u"/home/u/a"_s, u"/home/u/b"_s, u"/Volumes"_s} << 1;
        QTest::newRow("case-sensitive prefix") << QStringList{u"/volumes/x"_s} << QStringList{u"/volumes/x"_s} << 0;
    }
    void addFolders()
    {
        QFETCH(QStringList, paths);
        QFETCH(QStringList, posted);
        QFETCH(int, sheets);
        const QVariantMap post = postOf([&] {
            controller()->addFolders(paths);
            QVERIFY(m_alerts.sheets.isEmpty()); // the sheet comes a moment later
        });
        QCOMPARE(m_alerts.sheets.size(), sheets);
        if (sheets) {
            QCOMPARE(m_alerts.sheets.first().messageText, u"Filtered out folders"_s);
            QCOMPARE(m_alerts.sheets.first().informativeText,
                     QStringLiteral("Some of the folders you tried to add, were located in volumes different than "
                                    "main, and were removed."));
        }
        QCOMPARE(post.value(u"foldersToAdd"_s).toStringList(), posted);
    }

    void drops_data()
    {
        QTest::addColumn<QList<QByteArray>>("paths");
        QTest::addColumn<int>("validated"); // Qt::DropAction
        QTest::addColumn<bool>("accepted");
        QTest::addColumn<QStringList>("added");

        QTest::newRow("a file and a missing folder")
            << QList<QByteArray>{m_file, m_dirA + "-gone"} << int(Qt::IgnoreAction) << false << QStringList();
        QTest::newRow("no file paths") << QList<QByteArray>() << int(Qt::IgnoreAction) << false << QStringList();
        // The drop happens, so the refusal can be told.
        QTest::newRow("path not UTF-8") << QList<QByteArray>{m_undecodable} << int(Qt::CopyAction) << false
                                        << QStringList();
        QTest::newRow("UTF-8 folder kept beside it") << QList<QByteArray>{m_undecodable, m_dirB} << int(Qt::CopyAction)
                                                     << true << QStringList{QFile::decodeName(m_dirB)};
    }
    void drops()
    {
        QFETCH(QList<QByteArray>, paths);
        QFETCH(int, validated);
        QFETCH(bool, accepted);
        QFETCH(QStringList, added);
        QByteArray list;
        for (const QByteArray &path : paths)
            list += "file://" + path.toPercentEncoding("/") + "\r\n";
        auto mime = std::make_unique<QMimeData>();
        mime->setData(u"text/uri-list"_s, list);
        if (paths.isEmpty())
            mime->setText(u"just text"_s);
        if (paths.contains(m_undecodable))
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"path is not valid UTF-8"_s));

        // Proposed between the second and third rows.
        QDragMoveEvent move(QPoint(10, 10), Qt::CopyAction | Qt::MoveAction, mime.get(), Qt::LeftButton, {});
        table()->setDropRow(2, QFTableViewDataSource::DropAbove);
        QCOMPARE(int(pane().tableViewValidateDrop(table(), &move, 2, QFTableViewDataSource::DropAbove)), validated);
        if (validated != Qt::IgnoreAction) {
            QCOMPARE(table()->dropRow(), -1);
            QCOMPARE(table()->dropOperation(), QFTableViewDataSource::DropOn);
        }

        QDropEvent drop(QPointF(10, 10), Qt::CopyAction, mime.get(), Qt::LeftButton, {});
        bool result = false;
        const QVariantMap posted = postOf([&] { result = pane().tableViewAcceptDrop(table(), &drop, 2, {}); });
        QCOMPARE(result, accepted);
        QCOMPARE(posted.value(u"foldersToAdd"_s).toStringList(), added);
    }

    void deleteKeys_data()
    {
        QTest::addColumn<QList<int>>("selected");
        QTest::addColumn<int>("key");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("beeps");
        QTest::addColumn<QStringList>("removed");
        const QString music = u"/home/u/Music"_s, documents = u"/home/u/Documents"_s;
        QTest::newRow("nothing selected") << QList<int>() << int(Qt::Key_Delete) << 0 << "\x7f" << 1 << QStringList();
        // Sorted by name, so the arranged order is not the stored one.
        QTest::newRow("both selected") << QList<int>{0, 1} << int(Qt::Key_Delete) << 0 << "\x7f" << 0
                                       << QStringList{documents, music};
        QTest::newRow("backspace") << QList<int>{1} << int(Qt::Key_Backspace) << 0 << "\b" << 0 << QStringList{music};
        // With modifiers the text may be empty: the key decides.
        QTest::newRow("modified, empty text")
            << QList<int>{1} << int(Qt::Key_Backspace) << int(Qt::ControlModifier | Qt::ShiftModifier) << "" << 0
            << QStringList{music};
        QTest::newRow("other key") << QList<int>{1} << int(Qt::Key_A) << 0 << "a" << 0 << QStringList();
        QTest::newRow("remove button") << QList<int>{0} << -1 << 0 << "" << 0 << QStringList{documents};
        QTest::newRow("no key, empty text") << QList<int>{1} << 0 << 0 << "" << 0 << QStringList();
    }
    void deleteKeys()
    {
        QFETCH(QList<int>, selected);
        QFETCH(int, key);
        QFETCH(int, modifiers);
        QFETCH(QString, text);
        QFETCH(int, beeps);
        QFETCH(QStringList, removed);
        table()->sortByColumn(0, Qt::AscendingOrder);
        controller()->foldersArrayController()->setSelectionIndexes(selected);
        auto *button = child<QPushButton>("removeFolderButton");
        const QVariantMap posted = postOf([&] {
            if (key < 0) {
                button->click();
            } else {
                QKeyEvent event(QEvent::KeyPress, key, Qt::KeyboardModifiers(modifiers), text);
                QApplication::sendEvent(table(), &event);
            }
        });
        QCOMPARE(m_alerts.beeps, beeps);
        QCOMPARE(posted.value(u"foldersToRemove"_s).toStringList(), removed);
        if (!removed.isEmpty())
            QVERIFY(controller()->foldersArrayController()->selectionIndexes().isEmpty());
        QCOMPARE(table()->model()->rowCount(), 3); // rows stay until the helper has acted
    }

    void chooser_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QList<QByteArray>>("chosen");
        QTest::addColumn<QStringList>("added");
        QTest::newRow("cancelled") << 0 << QList<QByteArray>{m_dirA} << QStringList();
        QTest::newRow("two, duplicates kept")
            << 1 << QList<QByteArray>{m_dirB, m_dirA, m_dirB}
            << QStringList{QFile::decodeName(m_dirB), QFile::decodeName(m_dirA), QFile::decodeName(m_dirB)};
        QTest::newRow("path not UTF-8 refused") << 1 << QList<QByteArray>{m_undecodable} << QStringList();
    }
    void chooser()
    {
        QFETCH(int, code);
        QFETCH(QList<QByteArray>, chosen);
        QFETCH(QStringList, added);
        AnsweringChooser::code = code;
        AnsweringChooser::paths = chosen;
        if (chosen.contains(m_undecodable))
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"path is not valid UTF-8"_s));
        auto *button = child<QPushButton>("addFolderButton");
        const QVariantMap posted = postOf([button] { button->click(); });
        QCOMPARE(AnsweringChooser::shownOn, table()->window());
        QCOMPARE(AnsweringChooser::startedIn, QDir::homePath());
        QCOMPARE(posted.value(u"foldersToAdd"_s).toStringList(), added);
    }
    // A damaged store is replaced (the damaged-history suite); a busy one is not damaged.
    void storeAnotherProcessIsWritingIsKept()
    {
        // Beside the controller's store, which stays open.
        const QString path = m_env.productFolder() + u"/other.db"_s;
        TestEnvironment::sqlite(path, u"CREATE TABLE t(x);"_s);
        QProcess writer;
        writer.start(
            u"python3"_s,
            {u"-c"_s,
             QStringLiteral("import sqlite3, sys, time; c = sqlite3.connect(sys.argv[1], isolation_level=None); "
                            "c.execute('BEGIN EXCLUSIVE'); print(flush=True); time.sleep(1); c.execute('COMMIT')"),
             path});
        QVERIFY(writer.waitForReadyRead(10000));
        QVERIFY(VTUtil::ensureIntegrityOfDatabaseAtPath(path));
        QVERIFY(m_alerts.modals.isEmpty());
        QVERIFY(QFileInfo::exists(path));
        writer.waitForFinished();
    }
};

QTEST_MAIN(TestVantorPref)
#include "tst_vantorpref.moc"
