#include "platform/PropertyList.h"
#include "TestEnvironment.h"
#include "common/VTExclusionRules.h"

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtTest>

using namespace Qt::StringLiterals;

namespace {

enum Kind { Suffix, Prefix, Component, Exact };

void addRule(VTExclusionRules &rules, int kind, const QString &pattern)
{
    using Add = void (VTExclusionRules::*)(const QString &);
    const Add adders[] = {&VTExclusionRules::addRuleForPathSuffix, &VTExclusionRules::addRuleForPathPrefix,
                          &VTExclusionRules::addRuleForPathComponent, &VTExclusionRules::addRuleForPathEqualsTo};
    (rules.*adders[kind])(pattern);
}

QVariantMap excludeRule(const char *key, const QVariant &pattern)
{
    return {{u"RuleType"_s, u"Exclude"_s}, {QLatin1String(key), pattern}};
}

const QString kAcute = u"\u0301"_s;
const QString kDotBelow = u"\u0323"_s;

} // namespace

class TestVTExclusionRules : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void matching_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("pattern");
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("excluded");
        const auto row = [](const char *tag, int kind, const QString &pattern, const QString &path, bool excluded) {
            QTest::newRow(tag) << kind << pattern << path << excluded;
        };

        const QString lib = u"/Users/a/Library"_s;
        row("prefix", Prefix, lib, u"/Users/a/Library/Caches"_s, true);
        row("prefix case matters", Prefix, u"/users/a/Library"_s, u"/Users/a/Library/Caches"_s, false);
        row("prefix not bounded at /", Prefix, lib, u"/Users/a/LibraryOld"_s, true);
        row("prefix no tilde expansion", Prefix, u"~/x"_s, u"/home/u/x"_s, false);
        row("substring is not a component match", Component, u"Caches"_s, u"/x/NotCaches/y"_s, true);
        row("suffix", Suffix, u".gz"_s, u"/a/b.tar.gz"_s, true);
        row("suffix case matters", Suffix, u".gz"_s, u"/a/b.GZ"_s, false);
        row("suffix no slash removal", Suffix, u"/b"_s, u"/a/b/"_s, false);
        row("exact", Exact, u"/swapfile"_s, u"/swapfile"_s, true);
        for (int kind : {Suffix, Prefix, Component})
            QTest::addRow("empty pattern, kind %d, never", kind) << kind << QString() << QString() << false;
        row("empty exact matches empty path", Exact, QString(), QString(), true);
        row("empty exact only that", Exact, QString(), u"/"_s, false);

        // Substrings compare canonically equivalent spellings as equal, on whole characters.
        const QString composed = u"/Users/a/caf\u00e9/x"_s, decomposed = u"/Users/a/cafe"_s + kAcute + u"/x"_s;
        row("composed pattern, decomposed path", Component, u"caf\u00e9"_s, decomposed, true);
        row("decomposed pattern, composed path", Component, u"cafe"_s + kAcute, composed, true);
        row("marks in either order", Component, u"a"_s + kAcute + kDotBelow, u"/x/a"_s + kDotBelow + kAcute, true);
        row("no match ending inside a character", Component, u"cafe"_s, composed, false);
        row("no match ending before a mark", Component, u"cafe"_s, decomposed, false);
        row("lone mark is not found inside a character", Component, kAcute, u"/x/caf\u00e9"_s, false);
        row("astral character", Component, u"\U0001F600"_s, u"/a/\U0001F600b"_s, true);
        // Prefix, suffix and exact compare literally.
        row("prefix literal", Prefix, u"/Users/a/caf\u00e9"_s, decomposed, false);
        row("suffix literal", Suffix, u"\u00e9"_s, u"/x/e"_s + kAcute, false);
        row("exact literal", Exact, composed, decomposed, false);
    }

    void matching()
    {
        QFETCH(int, kind);
        QFETCH(QString, pattern);
        QFETCH(QString, path);
        QFETCH(bool, excluded);

        VTExclusionRules rules;
        addRule(rules, kind, pattern);
        QCOMPARE(rules.mustExclude(path), excluded);
        QCOMPARE(rules.mustExcludeByLinearScan(path), excluded);
    }

    void loading_data()
    {
        QTest::addColumn<QByteArray>("systemFile"); // "-": no file
        QTest::addColumn<QByteArray>("bundleFile");
        QTest::addColumn<QStringList>("loaded"); // "<kind> <pattern>", sorted

        const QByteArray a = PropertyList::toXml(QVariantList{excludeRule("PathBeginsWithString", u"/a/"_s)});
        const QByteArray b = PropertyList::toXml(
            QVariantList{excludeRule("PathBeginsWithString", u"/b/"_s), excludeRule("PathBeginsWithString", u"/a/"_s)});
        const QByteArray dictRoot = PropertyList::toXml(excludeRule("PathBeginsWithString", u"/d/"_s));
        const QStringList onlyA{u"prefix /a/"_s};

        QTest::newRow("both missing") << QByteArray("-") << QByteArray("-") << QStringList();
        QTest::newRow("system only") << a << QByteArray("-") << onlyA;
        QTest::newRow("bundle only") << QByteArray("-") << a << onlyA;
        QTest::newRow("same pattern in both stored once") << a << b << QStringList{u"prefix /a/"_s, u"prefix /b/"_s};
        QTest::newRow("dictionary root, other still read") << dictRoot << a << onlyA;
        QTest::newRow("not a property list") << QByteArray("<plist><array><dict>") << a << onlyA;
        QTest::newRow("empty file") << a << QByteArray() << onlyA;
        QTest::newRow("odd entries skipped with a message")
            << QByteArray("-")
            << PropertyList::toXml(QVariantList{u"not a rule"_s, excludeRule("PathEndsWithString", qint64(7)),
                                                excludeRule("PathBeginsWithString", u"/kept/"_s)})
            << QStringList{u"prefix /kept/"_s};

        // One dictionary with all four pattern keys and one the loader does not know, under each
        // rule type: only "Exclude" is used.
        const QVariantMap rule{{u"PathEndsWithString"_s, u".log"_s},
                               {u"PathBeginsWithString"_s, u"/var/"_s},
                               {u"PathContainsString"_s, u"/tmp/"_s},
                               {u"PathExactlyEqualsString"_s, u"/etc/fstab"_s},
                               {u"PathMatchesRegex"_s, u".*"_s}};
        const QStringList all{u"component /tmp/"_s, u"exact /etc/fstab"_s, u"prefix /var/"_s, u"suffix .log"_s};
        const std::pair<const char *, QVariant> types[] = {
            {"Exclude", u"Exclude"_s},         {"other word", u"Include"_s}, {"other case", u"exclude"_s},
            {"trailing blank", u"Exclude "_s}, {"number", qint64(1)},        {"missing", QVariant()}};
        for (const auto &[tag, type] : types) {
            QVariantMap typed = rule;
            if (type.isValid())
                typed.insert(u"RuleType"_s, type);
            QTest::newRow(tag) << QByteArray("-") << PropertyList::toXml(QVariantList{typed})
                               << (type == QVariant(u"Exclude"_s) ? all : QStringList());
        }
    }

    void loading()
    {
        QFETCH(QByteArray, systemFile);
        QFETCH(QByteArray, bundleFile);
        QFETCH(QStringList, loaded);

        const QString dir = m_env.root() + u'/' + QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'_');
        const QString systemPath = dir + u"/System/SystemCompressionRules.plist"_s;
        const QString resources = dir + u"/Resources"_s;
        if (systemFile != "-")
            TestEnvironment::writeFile(systemPath, systemFile);
        if (bundleFile != "-")
            TestEnvironment::writeFile(resources + u"/ExclusionRules.plist"_s, bundleFile);

        VTExclusionRules::setRuleFileLocations(systemPath, resources);
        if (QTest::currentDataTag() == QByteArrayView("odd entries skipped with a message")) {
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression(u"skipping entry 0 of .*\\.plist \\(not a dictionary\\)"_s));
            QTest::ignoreMessage(
                QtWarningMsg, QRegularExpression(u"skipping PathEndsWithString of entry 1 of .*\\(not a string\\)"_s));
        }
        VTExclusionRules rules;
        rules.loadExclusionRules(); // other rows log nothing: Qt Test fails on unexpected warnings below
        VTExclusionRules::setRuleFileLocations(QString(), QString());

        QStringList found;
        for (const auto &[kind, set] : {std::pair{"component ", &rules.componentRules()},
                                        {"exact ", &rules.exactRules()},
                                        {"prefix ", &rules.prefixRules()},
                                        {"suffix ", &rules.suffixRules()}}) {
            for (const QString &pattern : *set)
                found << QLatin1String(kind) + pattern;
        }
        found.sort();
        QCOMPARE(found, loaded);
    }

    void shippedRules()
    {
        const QString resources = QStringLiteral(VANTOR_HELPER_RESOURCES);
        const QString file = resources + u"/ExclusionRules.plist"_s;

        // A third-party reader takes the commented file too, and finds the rules we find.
        const QString python = TestEnvironment::pythonPlist(file);
        QVERIFY2(!python.startsWith(QLatin1String("ERROR")), qPrintable(python));
        const qsizetype entries = python.count(QLatin1String("'RuleType': 'Exclude'"));

        // The shared instance, which callers ask, loads them.
        VTExclusionRules::setRuleFileLocations(m_env.root() + u"/none.plist"_s, resources);
        const VTExclusionRules *rules = VTExclusionRules::sharedExclusionRules();
        VTExclusionRules::setRuleFileLocations(QString(), QString());
        QVERIFY(entries > 20);
        QCOMPARE(rules->suffixRules().size() + rules->prefixRules().size() + rules->componentRules().size()
                     + rules->exactRules().size(),
                 entries);

        QVERIFY(VTExclusionRules::mustExcludePath(u"/home/u/.local/share/Vantor/history.db"_s));
        QVERIFY(!VTExclusionRules::mustExcludePath(u"/home/u/Documents/notes.txt"_s));
    }

    void randomisedAgainstLinearScan()
    {
        // Few letters, so patterns occur often; composed and decomposed accents, a lone mark,
        // a character outside the basic plane, and Hangul, which decomposes into several letters.
        const QStringList pieces{u"/"_s,      u"a"_s,          u"b"_s,          u"A"_s,           u"."_s,
                                 u"e"_s,      u"\u00e9"_s,     u"e"_s + kAcute, kAcute,           kDotBelow,
                                 u"\u1EB9"_s, u"\U0001F600"_s, u"\uAC00"_s,     u"\u1100\u1161"_s};
        QRandomGenerator random(20240611);
        auto text = [&](int maxPieces) {
            QString out;
            for (int n = int(random.bounded(maxPieces + 1)); n > 0; --n)
                out += pieces.at(random.bounded(int(pieces.size())));
            return out;
        };

        int excluded = 0;
        for (int set = 0; set < 300; ++set) {
            VTExclusionRules rules;
            QStringList patterns;
            const int kinds = int(random.bounded(1, 16)); // which kinds this set has, as bits
            for (int n = int(random.bounded(30)); n > 0; --n) {
                const int kind = int(random.bounded(4));
                if (!(kinds & (1 << kind)))
                    continue;
                const QString pattern = text(4);
                patterns.append(pattern);
                addRule(rules, kind, pattern);
            }
            for (int p = 0; p < 300; ++p) {
                QString path = text(8);
                // Half the paths are built around a pattern, so there are matches of every kind.
                if (!patterns.isEmpty() && random.bounded(2))
                    path = (random.bounded(2) ? text(3) : QString()) + patterns.at(random.bounded(int(patterns.size())))
                        + (random.bounded(2) ? text(3) : QString());
                const bool expected = rules.mustExcludeByLinearScan(path);
                QVERIFY2(rules.mustExclude(path) == expected, qPrintable(u"set %1, path %2"_s.arg(set).arg(path)));
                excluded += expected;
            }
        }
        // Both answers occur often enough for the comparison to mean something.
        QVERIFY(excluded > 9000 && excluded < 81000);
    }

private:
    TestEnvironment m_env;
};

QTEST_GUILESS_MAIN(TestVTExclusionRules)
#include "tst_vtexclusionrules.moc"
