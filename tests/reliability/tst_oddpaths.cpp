// Folders named as Linux allows, carried unchanged from a drop on the pane through the bus,
// the real helper and store to a table row and the record's alias, and removed again.
#include "common/AliasResolver.h"
#include "prefpane/ArrayController.h"
#include "common/BDAlias.h"
#include "NotificationRecorder.h"
#include "common/Notifications.h"
#include "prefpane/QFTableView.h"
#include "RecordingAlerts.h"
#include "HelperProcess.h"
#include "PaneFixture.h"
#include "TestEnvironment.h"
#include "prefpane/VTHistoryController.h"

#include <QDir>
#include <QDropEvent>
#include <QMimeData>
#include <QRegularExpression>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

const QString kFolders = QLatin1String(Notifications::Folders);

// A path of exactly `bytes` bytes, its names of one- to three-byte characters under 255 bytes each.
QString pathOfLength(const QString &base, qsizetype bytes)
{
    QString path = base;
    while (QFile::encodeName(path).size() < bytes - 250)
        path += u'/' + u"Tiefe Ordner Ωμέγα 日本語 "_s.repeated(6).trimmed(); // 203 bytes
    return path + u'/' + QString(bytes - QFile::encodeName(path).size() - 1, u'x');
}

} // namespace

class TestOddPaths : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(controller()->managedObjectContext());
        QVERIFY(m_helper.start());
    }

    void init() { AliasResolver::setUseFileHandles(false); }
    void cleanup() { AliasResolver::setUseFileHandles(true); }

    void travelsUnchanged_data()
    {
        QTest::addColumn<QString>("name");

        // Also no forged line in the helper's log.
        QTest::newRow("newline and control characters")
            << u"two\nlines\n2026-01-01T00:00:00.000 1 forged\ttab \x1b[0m \x7f"_s;
        QTest::newRow("spaces") << u"  spaced  out  "_s;
        QTest::newRow("quotes and backslash") << QStringLiteral("it's \"quoted\" back\\slash\\");
        QTest::newRow("composed accent") << u"Música"_s;
        // The same word, other bytes: nothing on the way may normalise it.
        QTest::newRow("decomposed accent") << u"Mu\u0301sica"_s;
        QTest::newRow("CJK and outside the BMP") << u"日本語のフォルダ \U0001F4C1 Ordner \U0001D11E"_s;
        QTest::newRow("URL, shell and glob characters") << u"100% #1 ?a=b&c;d %41 $HOME `x` *?[a] {b,c} ~ -rf"_s;
        QTest::newRow("dots") << u"..."_s;
        // The kernel's own mark of an unlinked item is a legal name too.
        QTest::newRow("looks deleted") << u"notes (deleted)"_s;
        QTest::newRow("4,000 bytes") << QString();
    }
    void travelsUnchanged()
    {
        QFETCH(QString, name);
        const QString place = m_env.home() + u"/row-"_s + QString::fromUtf8(QTest::currentDataTag());
        const QString folder = name.isNull() ? pathOfLength(place, 4000) : place + u'/' + name;
        QVERIFY(QDir().mkpath(folder));

        // Dropped the way file managers send it.
        auto mime = std::make_unique<QMimeData>();
        mime->setData(u"text/uri-list"_s, "file://" + QFile::encodeName(folder).toPercentEncoding("/") + "\r\n");
        QDropEvent drop(QPointF(10, 10), Qt::CopyAction, mime.get(), Qt::LeftButton, {});
        NotificationRecorder recorder;
        QVERIFY(m_fixture.pane.tableViewAcceptDrop(m_fixture.pane.foldersTableView, &drop, -1,
                                                   QFTableViewDataSource::DropOn));
        QVERIFY(recorder.waitFor(kFolders));
        QCOMPARE(recorder.userInfo(kFolders).value(u"foldersToAdd"_s), QVariant(QStringList{folder}));

        // The helper's record, as the sqlite3 shell reads it: one text value, byte for byte.
        const QString where = u" FROM ZHISTORY WHERE CAST(ZFOLDER AS BLOB) = X'%1'"_s.arg(
            QLatin1String(QFile::encodeName(folder).toHex()));
        QTRY_COMPARE_WITH_TIMEOUT(sqlite(u"SELECT COUNT(*), typeof(ZFOLDER), ZENABLED, ZSTATUS"_s + where),
                                  u"1|text|1|100"_s, 30000);

        QTRY_VERIFY_WITH_TIMEOUT(rowOf(folder) >= 0, 30000);
        const int row = rowOf(folder);
        QCOMPARE(controller()->foldersArrayController()->arrangedObjects().at(row).value(u"path"_s).toString(), folder);

        // The record's alias leads to the folder by its names, as an ordinary user's does.
        const QByteArray alias = QByteArray::fromHex(sqlite(u"SELECT hex(ZFOLDERALIAS)"_s + where).toLatin1());
        QCOMPARE(BDAlias::aliasWithData(alias)->fullPath(), folder);

        // Removed by the row's own value: the helper finds its record by it.
        recorder.clear();
        controller()->foldersArrayController()->setSelectionIndexes({row});
        controller()->removeFolders();
        QVERIFY(recorder.waitFor(kFolders));
        QCOMPARE(recorder.userInfo(kFolders).value(u"foldersToRemove"_s), QVariant(QStringList{folder}));
        QTRY_COMPARE_WITH_TIMEOUT(sqlite(u"SELECT ZENABLED"_s + where), u"0"_s, 30000);
        QTRY_COMPARE_WITH_TIMEOUT(rowOf(folder), -1, 30000);
        QVERIFY(m_alerts.sheets.isEmpty() && m_alerts.modals.isEmpty());

        static const QRegularExpression stamp(u"^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3} \\d+ "_s);
        for (const QString &line : QString::fromUtf8(m_helper.log()).split(u'\n', Qt::SkipEmptyParts))
            QVERIFY2(stamp.match(line).hasMatch() && !line.startsWith(u"2026-01-01"_s), qPrintable(line));
    }

private:
    static VTHistoryController *controller() { return VTHistoryController::sharedHistoryController(); }
    static int rowOf(const QString &folder)
    {
        const QList<QVariantMap> rows = controller()->foldersArrayController()->arrangedObjects();
        for (int i = 0; i < rows.size(); ++i) {
            if (rows.at(i).value(u"folder"_s).toString() == folder)
                return i;
        }
        return -1;
    }

    QString sqlite(const QString &sql) const
    {
        return TestEnvironment::sqlite(m_env.productFolder() + u"/history.db"_s, sql);
    }

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    PaneFixture m_fixture;
    HelperProcess m_helper{m_env};
};

QTEST_MAIN(TestOddPaths)
#include "tst_oddpaths.moc"
