#include "NotificationRecorder.h"
#include "PaneFixture.h"
#include "RecordingAlerts.h"
#include "gui/FolderChooser.h"
#include "prefpane/ArrayController.h"
#include "prefpane/QFTableView.h"
#include "prefpane/VTHistoryController.h"

#include <QApplication>
#include <QDir>
#include <QDropEvent>
#include <QMimeData>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <sys/stat.h>

namespace {

const QString kFolders = QStringLiteral("com.quillfen.vantor.folders");

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

QMimeData *uriList(const QList<QByteArray> &paths)
{
    auto *mime = new QMimeData;
    QByteArray list;
    for (const QByteArray &path : paths)
        list += "file://" + path.toPercentEncoding("/") + "\r\n";
    mime->setData(QStringLiteral("text/uri-list"), list);
    return mime;
}

} // namespace

// Folder list editing on the real pane, a real store and bus, and real drop data.
class TestFolderEditing : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    PaneFixture m_ui;
    VantorPref &m_pane = m_ui.pane;
    QByteArray m_dirA, m_dirB, m_file, m_undecodable;

    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }
    QFTableView *table() const { return m_pane.foldersTableView; }

    QVariantMap postOf(const std::function<void()> &action)
    {
        NotificationRecorder recorder;
        action();
        QTest::qWait(50);
        recorder.settle();
        if (recorder.count(kFolders) != 1)
            return recorder.count(kFolders) == 0 ? QVariantMap()
                                                 : QVariantMap{{QStringLiteral("count"), recorder.count(kFolders)}};
        return recorder.userInfos().at(recorder.names().indexOf(kFolders));
    }

    void press(int key, Qt::KeyboardModifiers modifiers = Qt::NoModifier, const QString &text = QString())
    {
        QKeyEvent event(QEvent::KeyPress, key, modifiers, text);
        QApplication::sendEvent(table(), &event);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(controller()->managedObjectContext());

        const QByteArray base = QFile::encodeName(m_env.home());
        m_dirA = base + "/Photos";
        m_dirB = base + "/Música";
        m_file = base + "/notes.txt";
        m_undecodable = base + "/bad\xff";
        QVERIFY(QDir().mkpath(QFile::decodeName(m_dirA)));
        QVERIFY(QDir().mkpath(QFile::decodeName(m_dirB)));
        TestEnvironment::writeFile(QFile::decodeName(m_file), "x");
        QCOMPARE(::mkdir(m_undecodable.constData(), 0700), 0);

        TestEnvironment::sqlite(m_env.productFolder() + QStringLiteral("/history.db"),
                                QStringLiteral("INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) VALUES "
                                               "('/h/a', 10, 1, 1), ('/h/b', 20, 2, 1), ('/h/c', 30, 3, 1), "
                                               "('/h/d', 40, 4, 1);"));
        controller()->updatePreviousSavings();
        QCOMPARE(table()->model()->rowCount(), 4);
    }

    void drops_data()
    {
        QTest::addColumn<QList<QByteArray>>("paths");
        QTest::addColumn<int>("validated"); // Qt::DropAction
        QTest::addColumn<bool>("accepted");
        QTest::addColumn<QStringList>("added");

        QTest::newRow("two folders and a file")
            << QList<QByteArray>{m_dirA, m_file, m_dirB} << int(Qt::CopyAction) << true
            << QStringList{QFile::decodeName(m_dirA), QFile::decodeName(m_dirB)};
        QTest::newRow("only files") << QList<QByteArray>{m_file} << int(Qt::IgnoreAction) << false << QStringList();
        QTest::newRow("missing folder") << QList<QByteArray>{m_dirA + "-gone"} << int(Qt::IgnoreAction) << false
                                        << QStringList();
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
        std::unique_ptr<QMimeData> mime(uriList(paths));
        if (paths.isEmpty())
            mime->setText(QStringLiteral("just text"));
        if (paths.contains(m_undecodable))
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("path is not valid UTF-8")));

        // Proposed between the second and third rows.
        QDragMoveEvent move(QPoint(10, 10), Qt::CopyAction | Qt::MoveAction, mime.get(), Qt::LeftButton, {});
        table()->setDropRow(2, QFTableViewDataSource::DropAbove);
        QCOMPARE(int(m_pane.tableViewValidateDrop(table(), &move, 2, QFTableViewDataSource::DropAbove)), validated);
        if (validated != Qt::IgnoreAction) {
            QCOMPARE(table()->dropRow(), -1);
            QCOMPARE(table()->dropOperation(), QFTableViewDataSource::DropOn);
        }

        QDropEvent drop(QPointF(10, 10), Qt::CopyAction, mime.get(), Qt::LeftButton, {});
        bool result = false;
        const QVariantMap posted = postOf([&] { result = m_pane.tableViewAcceptDrop(table(), &drop, 2, {}); });
        QCOMPARE(result, accepted);
        QCOMPARE(posted.value(QStringLiteral("foldersToAdd")).toStringList(), added);
    }

    void deleteKeys_data()
    {
        QTest::addColumn<QList<int>>("selected");
        QTest::addColumn<int>("key");
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("beeps");
        QTest::addColumn<QStringList>("removed");

        QTest::newRow("nothing selected") << QList<int>() << int(Qt::Key_Delete) << 0 << "\x7f" << 1 << QStringList();
        // Sorted descending, so the arranged order is not the stored one.
        QTest::newRow("three selected") << QList<int>{0, 2, 3} << int(Qt::Key_Delete) << 0 << "\x7f" << 0
                                        << QStringList{QStringLiteral("/h/d"), QStringLiteral("/h/b"),
                                                       QStringLiteral("/h/a")};
        QTest::newRow("backspace") << QList<int>{1} << int(Qt::Key_Backspace) << 0 << "\b" << 0
                                   << QStringList{QStringLiteral("/h/c")};
        // With modifiers the text may be empty: the key decides.
        QTest::newRow("modified, empty text")
            << QList<int>{1} << int(Qt::Key_Backspace) << int(Qt::ControlModifier | Qt::ShiftModifier) << "" << 0
            << QStringList{QStringLiteral("/h/c")};
        QTest::newRow("other key") << QList<int>{1} << int(Qt::Key_A) << 0 << "a" << 0 << QStringList();
        QTest::newRow("remove button") << QList<int>{3} << -1 << 0 << "" << 0 << QStringList{QStringLiteral("/h/a")};
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
        m_alerts.clear();
        table()->sortByColumn(0, Qt::DescendingOrder);
        controller()->foldersArrayController()->setSelectionIndexes(selected);
        auto *button = m_pane.mainView()->findChild<QPushButton *>(QStringLiteral("removeFolderButton"));
        const QVariantMap posted = postOf([&] {
            if (key < 0)
                button->click();
            else
                press(key, Qt::KeyboardModifiers(modifiers), text);
        });
        QCOMPARE(m_alerts.beeps, beeps);
        QCOMPARE(posted.value(QStringLiteral("foldersToRemove")).toStringList(), removed);
        QVERIFY(!posted.contains(QStringLiteral("count")));
        if (!removed.isEmpty())
            QVERIFY(controller()->foldersArrayController()->selectionIndexes().isEmpty());
        QCOMPARE(table()->model()->rowCount(), 4); // rows stay until the helper has acted
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
        FolderChooser::setFactory([](QObject *parent) { return new AnsweringChooser(parent); });
        if (chosen.contains(m_undecodable))
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("path is not valid UTF-8")));
        auto *button = m_pane.mainView()->findChild<QPushButton *>(QStringLiteral("addFolderButton"));
        const QVariantMap posted = postOf([button] { button->click(); });
        FolderChooser::setFactory({});
        QCOMPARE(AnsweringChooser::shownOn, table()->window());
        QCOMPARE(AnsweringChooser::startedIn, QDir::homePath());
        QCOMPARE(posted.value(QStringLiteral("foldersToAdd")).toStringList(), added);
    }
};

QTEST_MAIN(TestFolderEditing)
#include "tst_folderediting.moc"
