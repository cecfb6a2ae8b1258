#include "common/AliasRecord.h"
#include "common/AliasResolver.h"
#include "common/BDAlias.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QTest>
#include <QtEndian>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestBDAlias : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    QString m_root;

    QString make(const QString &relative)
    {
        const QString path = m_root + u'/' + relative;
        if (!QDir().mkpath(path))
            qFatal("cannot make %s", qPrintable(path));
        return path;
    }

private Q_SLOTS:
    void init()
    {
        // Realpath'd, since aliases report the kernel's own name for their target.
        m_root = QDir(m_env.home()).canonicalPath() + u"/t"_s;
        QDir(m_root).removeRecursively();
        make(QString());
        AliasResolver::setUseFileHandles(true);
    }

    void movedFolderResolves_data()
    {
        QTest::addColumn<QString>("from");
        QTest::addColumn<QString>("to");
        QTest::addColumn<bool>("fileHandles");
        for (bool handles : {true, false}) {
            for (const QString &move : {u"a/folder a/renamed"_s, u"a/folder b/c/folder"_s, u"a/folder z/folder"_s,
                                        u"a/b/folder x/y/z/other"_s, u"a/folder a/folder"_s})
                QTest::addRow("%s%s", qPrintable(move), handles ? " by handle" : " by search")
                    << move.section(u' ', 0, 0) << move.section(u' ', 1) << handles;
        }
    }
    void movedFolderResolves()
    {
        QFETCH(QString, from);
        QFETCH(QString, to);
        QFETCH(bool, fileHandles);
        AliasResolver::setUseFileHandles(fileHandles);
        make(from + u"/inside"_s);
        make(u"b/c"_s);
        make(u"x/y"_s);
        auto alias = BDAlias::aliasWithPath(m_root + u'/' + from);
        QVERIFY(alias);
        const QByteArray before = alias->aliasData();
        QCOMPARE(alias->fullPath(), m_root + u'/' + from);
        struct stat st = {};
        QCOMPARE(::stat(QFile::encodeName(m_root + u'/' + from).constData(), &st), 0);
        const std::optional<QVariantMap> info = alias->aliasInfo();
        QVERIFY(info);
        QCOMPARE(info->value(u"targetNameString"_s).toString(), from.section(u'/', -1));
        QCOMPARE(info->value(u"pathString"_s).toString(), m_root + u'/' + from);
        QCOMPARE(info->value(u"nodeID"_s).toUInt(), quint32(st.st_ino));

        if (from != to) {
            QDir().mkpath(QFileInfo(m_root + u'/' + to).path());
            QVERIFY(QDir().rename(m_root + u'/' + from, m_root + u'/' + to));
            QDir().rmpath(m_root + u"/a"_s);
        }
        QCOMPARE(alias->fullPath(), m_root + u'/' + to);
        QCOMPARE(alias->aliasData(), before);
    }

    // A folder deleted (another made under its name), one on a volume that is not mounted,
    // and a path that is not there at all.
    void goneTargetsAreNone()
    {
        const QString path = make(u"gone"_s);
        auto alias = BDAlias::aliasWithPath(path);
        QVERIFY(alias);
        std::optional<AliasRecord> rec = AliasRecord::fromBytes(alias->aliasData());
        QVERIFY(rec);
        rec->volumeUuid = "00000000-dead-beef-0000-000000000000";
        rec->device = 0xdead00beef;
        rec->mountPoint = "/media/nowhere";
        rec->path = "/media/nowhere/gone";
        QVERIFY(BDAlias(rec->toBytes()).fullPath().isNull());

        AliasResolver::setUseFileHandles(false);
        QVERIFY(QDir(path).removeRecursively());
        make(u"gone"_s);
        QVERIFY(alias->fullPath().isNull());

        BDAlias::Error error;
        QVERIFY(!BDAlias::aliasWithPath(m_root + u"/missing"_s, &error));
        QCOMPARE(error.domain, u"NSOSStatusErrorDomain"_s);
        QCOMPARE(error.code, -43);
    }

    void unreadableDataIsNone_data()
    {
        QTest::addColumn<QByteArray>("data");
        const QByteArray good = BDAlias::aliasWithPath(m_env.home())->aliasData();
        QByteArray flipped = good;
        flipped[flipped.size() / 2] = char(flipped[flipped.size() / 2] ^ 0x40);
        // Changed fields with a checksum that matches them, so the field itself is refused.
        auto mended = [](QByteArray bytes) {
            const qsizetype body = bytes.size() - 2;
            qToLittleEndian<quint16>(qChecksum(QByteArrayView(bytes.constData(), body)), bytes.data() + body);
            return bytes;
        };
        QByteArray newer = good;
        newer[4] = 2;
        newer = mended(newer);
        QByteArray reserved = good;
        reserved[7] = char(0x80);
        reserved = mended(reserved);
        QTest::addRow("none") << QByteArray();
        QTest::addRow("garbage") << QByteArray("\x00\x01garbage that is no alias record at all", 40);
        QTest::addRow("one byte long") << good + 'x';
        QTest::addRow("bit flipped") << flipped;
        QTest::addRow("unknown version") << newer;
        QTest::addRow("reserved bits set") << reserved;
    }
    void unreadableDataIsNone()
    {
        QFETCH(QByteArray, data);
        auto alias = BDAlias::aliasWithData(data);
        QVERIFY(alias);
        QCOMPARE(bool(alias->alias()), !data.isNull());
        QVERIFY(alias->fullPath().isNull());
        QVERIFY(!alias->aliasInfo());
        QCOMPARE(alias->hash(), size_t(0));
        QCOMPARE(alias->aliasData(), data);
    }

    void everyTruncationIsRejected()
    {
        const QByteArray good = BDAlias::aliasWithPath(make(u"t"_s))->aliasData();
        QVERIFY(AliasRecord::fromBytes(good));
        for (qsizetype n = 0; n < good.size(); ++n)
            QVERIFY2(!AliasRecord::fromBytes(good.left(n)), qPrintable(QString::number(n)));
    }
};

QTEST_GUILESS_MAIN(TestBDAlias)
#include "tst_bdalias.moc"
