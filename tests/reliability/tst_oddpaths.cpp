// Folders named as Linux allows, carried end to end through real parts: dropped on the
// pane, posted on the bus, recorded by the real helper in the real store, shown as a table
// row, found again through the record's alias (also after a move), and removed again.

#include "common/AliasResolver.h"
#include "common/HelperIdentity.h"
#include "prefpane/ArrayController.h"
#include "common/BDAlias.h"
#include "platform/DistributedNotificationCenter.h"
#include "prefpane/HistoryArrayModel.h"
#include "NotificationRecorder.h"
#include "common/Notifications.h"
#include "prefpane/QFTableView.h"
#include "RecordingAlerts.h"
#include "PaneFixture.h"
#include "TestEnvironment.h"
#include "prefpane/VTHistoryController.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QDropEvent>
#include <QMimeData>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <cstdio>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

const QString kFolders = QStringLiteral("com.quillfen.vantor.folders");

// Nested folders below base whose full path is exactly bytes long, every name under the
// 255-byte limit and mixing one-, two- and three-byte characters.
QString pathOfLength(const QString &base, qsizetype bytes)
{
    static const QString piece = QStringLiteral("Tiefe Ordner Ωμέγα 日本語 ");
    QString path = base;
    while (QFile::encodeName(path).size() < bytes - 250) {
        QString name;
        while (QFile::encodeName(name + piece).size() < 200)
            name += piece;
        path += u'/' + name.trimmed();
    }
    path += u'/';
    path += QString(bytes - QFile::encodeName(path).size(), u'x');
    return path;
}

QByteArray hex(const QString &path)
{
    return QFile::encodeName(path).toHex().toUpper();
}

} // namespace

class TestOddPaths : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init() { AliasResolver::setUseFileHandles(true); } // a failed row may have left it off
    void travelsUnchanged_data();
    void travelsUnchanged();
    void helperLogKeepsOneLinePerNotification();

private:
    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }
    QFTableView *table() { return m_fixture.pane.foldersTableView; }
    int rowOf(const QString &folder) const;
    QString sqlite(const QString &sql) const;
    QString helperLog() const;

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    PaneFixture m_fixture;
    QProcess m_helper;
};

void TestOddPaths::initTestCase()
{
    QVERIFY(controller()->managedObjectContext());

    m_helper.setProcessChannelMode(QProcess::ForwardedChannels);
    m_helper.start(TestEnvironment::helperExecutable(), {});
    QVERIFY(m_helper.waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(QDBusConnection::sessionBus().interface()->isServiceRegistered(HelperIdentity::busName()),
                             15000);
}

void TestOddPaths::cleanupTestCase()
{
    AliasResolver::setUseFileHandles(true);
    if (m_helper.state() == QProcess::NotRunning)
        return;
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::HelperShouldQuit));
    if (!m_helper.waitForFinished(15000)) {
        m_helper.kill();
        m_helper.waitForFinished();
    }
}

int TestOddPaths::rowOf(const QString &folder) const
{
    const QList<QVariantMap> rows = controller()->foldersArrayController()->arrangedObjects();
    for (int i = 0; i < rows.size(); ++i) {
        if (rows.at(i).value(QStringLiteral("folder")).toString() == folder)
            return i;
    }
    return -1;
}

QString TestOddPaths::sqlite(const QString &sql) const
{
    return TestEnvironment::sqlite(m_env.productFolder() + QStringLiteral("/history.db"), sql);
}

QString TestOddPaths::helperLog() const
{
    return QString::fromUtf8(
        TestEnvironment::readFile(m_env.home() + QStringLiteral("/.local/state/vantor/VantorHelper.log")));
}

void TestOddPaths::travelsUnchanged_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("newline") << QStringLiteral("two\nlines");
    QTest::newRow("spaces") << QStringLiteral("  spaced  out  ");
    QTest::newRow("quotes") << QStringLiteral("it's \"quoted\"");
    QTest::newRow("backslash") << QStringLiteral("back\\slash\\");
    QTest::newRow("composed accent") << QStringLiteral("Música");
    // The same word, other bytes: nothing on the way may normalise it.
    QTest::newRow("decomposed accent") << QStringLiteral("Mu\u0301sica");
    QTest::newRow("CJK") << QStringLiteral("日本語のフォルダ");
    QTest::newRow("outside the BMP") << QStringLiteral("\U0001F4C1 Ordner \U0001D11E");
    QTest::newRow("URL characters") << QStringLiteral("100% #1 ?a=b&c;d %41");
    QTest::newRow("control characters") << QStringLiteral("tab\there \x1b[0m \x7f");
    QTest::newRow("shell and glob") << QStringLiteral("$HOME `x` *?[a] {b,c} ~ -rf");
    QTest::newRow("dots") << QStringLiteral("...");
    // The kernel's own mark of an unlinked item is a legal name too.
    QTest::newRow("looks deleted") << QStringLiteral("notes (deleted)");
    QTest::newRow("4,000 bytes") << QString();
}

void TestOddPaths::travelsUnchanged()
{
    QFETCH(QString, name);
    // Each row in a place of its own, so the place can move without touching the others.
    const QString place =
        m_env.home() + QStringLiteral("/row-%1").arg(QString::fromUtf8(QTest::currentDataTag())).replace(u',', u'_');
    const QString folder = name.isNull() ? pathOfLength(place, 4000) : place + u'/' + name;
    QVERIFY(QDir().mkpath(folder));
    QVERIFY(QFileInfo(folder).isDir());
    if (name.isNull())
        QCOMPARE(QFile::encodeName(folder).size(), 4000);

    // Dropped the way file managers send it.
    auto mime = std::make_unique<QMimeData>();
    mime->setData(QStringLiteral("text/uri-list"),
                  "file://" + QFile::encodeName(folder).toPercentEncoding("/") + "\r\n");
    QDropEvent drop(QPointF(10, 10), Qt::CopyAction, mime.get(), Qt::LeftButton, {});
    NotificationRecorder recorder;
    QVERIFY(m_fixture.pane.tableViewAcceptDrop(table(), &drop, -1, QFTableViewDataSource::DropOn));
    QVERIFY(recorder.waitFor(kFolders));
    const QStringList posted = recorder.userInfos()
                                   .at(recorder.names().indexOf(kFolders))
                                   .value(QStringLiteral("foldersToAdd"))
                                   .toStringList();
    QCOMPARE(posted, QStringList{folder});

    // The helper's record, as the sqlite3 shell reads it: one text value, byte for byte.
    const QString where =
        QStringLiteral(" FROM ZHISTORY WHERE CAST(ZFOLDER AS BLOB) = X'%1'").arg(QLatin1String(hex(folder)));
    QTRY_COMPARE_WITH_TIMEOUT(sqlite(QStringLiteral("SELECT COUNT(*), typeof(ZFOLDER), ZENABLED, ZSTATUS") + where),
                              QStringLiteral("1|text|1|100"), 30000);

    // The table's row, once the helper's word has reached the pane.
    QTRY_VERIFY_WITH_TIMEOUT(rowOf(folder) >= 0, 30000);
    const int row = rowOf(folder);
    const QVariantMap entry = controller()->foldersArrayController()->arrangedObjects().at(row);
    QCOMPARE(entry.value(QStringLiteral("path")).toString(), folder);
    const HistoryArrayModel *model = controller()->historyArray();
    int modelRow = -1;
    for (int i = 0; i < model->rowCount(); ++i) {
        if (model->row(i).value(QStringLiteral("folder")).toString() == folder)
            modelRow = i;
    }
    QVERIFY(modelRow >= 0);
    QCOMPARE(model->data(model->index(modelRow, 1), HistoryArrayModel::ValueRole).toString(), folder);
    QCOMPARE(model->data(model->index(modelRow, 0), Qt::DisplayRole).toString(), folder.section(u'/', -1));
    // Its cells draw it.
    table()->scrollTo(table()->model()->index(row, 0));
    QVERIFY(!m_fixture.window.grab().isNull());

    // The record's alias leads to the folder, before and after its place moves.
    const QByteArray alias = QByteArray::fromHex(sqlite(QStringLiteral("SELECT hex(ZFOLDERALIAS)") + where).toLatin1());
    QCOMPARE(BDAlias::aliasWithData(alias)->fullPath(), folder);
    QVERIFY(controller()->folders().value_or(QStringList()).contains(folder));
    const QString movedPlace = place + QStringLiteral(" moved");
    const QString moved = movedPlace + folder.mid(place.size());
    QCOMPARE(std::rename(QFile::encodeName(place).constData(), QFile::encodeName(movedPlace).constData()), 0);
    QCOMPARE(BDAlias::aliasWithData(alias)->fullPath(), moved);
    // As an ordinary user, who cannot open by file handle, finds it.
    AliasResolver::setUseFileHandles(false);
    QCOMPARE(BDAlias::aliasWithData(alias)->fullPath(), moved);
    AliasResolver::setUseFileHandles(true);

    // Removed by the row's own value: the helper finds its record by it.
    recorder.clear();
    controller()->foldersArrayController()->setSelectionIndexes({row});
    controller()->removeFolders();
    QVERIFY(recorder.waitFor(kFolders));
    QCOMPARE(recorder.userInfos().at(recorder.names().indexOf(kFolders)).value(QStringLiteral("foldersToRemove")),
             QVariant(QStringList{folder}));
    QTRY_COMPARE_WITH_TIMEOUT(sqlite(QStringLiteral("SELECT ZENABLED") + where), QStringLiteral("0"), 30000);
    QTRY_COMPARE_WITH_TIMEOUT(rowOf(folder), -1, 30000);
    QVERIFY(m_alerts.sheets.isEmpty() && m_alerts.modals.isEmpty());
}

void TestOddPaths::helperLogKeepsOneLinePerNotification()
{
    // Names with line breaks must not split a log line or forge one.
    const QString folder = m_env.home() + u"/log/two\nlines\n2026-01-01T00:00:00.000 1 forged"_s;
    QVERIFY(QDir().mkpath(folder));
    DistributedNotificationCenter::defaultCenter()->postNotificationName(kFolders,
                                                                         {{u"foldersToAdd"_s, QStringList{folder}}});
    QTRY_VERIFY_WITH_TIMEOUT(helperLog().contains(u"two\\nlines"_s), 30000);
    static const QRegularExpression stamp(u"^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3} \\d+ "_s);
    for (const QString &line : helperLog().split(u'\n', Qt::SkipEmptyParts))
        QVERIFY2(stamp.match(line).hasMatch() && !line.startsWith(u"2026-01-01"_s), qPrintable(line));
}

QTEST_MAIN(TestOddPaths)
#include "tst_oddpaths.moc"
