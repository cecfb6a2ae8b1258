#include "platform/PropertyList.h"
#include "TestEnvironment.h"
#include "common/VTExclusionRules.h"

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtTest>

namespace {

enum Kind { Suffix, Prefix, Component, Exact };

void addRule(VTExclusionRules &rules, int kind, const QString &pattern)
{
    switch (kind) {
    case Suffix:
        rules.addRuleForPathSuffix(pattern);
        break;
    case Prefix:
        rules.addRuleForPathPrefix(pattern);
        break;
    case Component:
        rules.addRuleForPathComponent(pattern);
        break;
    default:
        rules.addRuleForPathEqualsTo(pattern);
        break;
    }
}

QVariantMap excludeRule(const char *key, const QVariant &pattern)
{
    return {{QStringLiteral("RuleType"), QStringLiteral("Exclude")}, {QLatin1String(key), pattern}};
}

const QString kAcute = QStringLiteral("\u0301");
const QString kDotBelow = QStringLiteral("\u0323");

} // namespace

class TestVTExclusionRules : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void matching_data();
    void matching();
    void oddEntriesAreSkippedWithAMessage();
    void loading_data();
    void loading();
    void shippedRules();
    void randomisedAgainstLinearScan();

private:
    TestEnvironment m_env;
};

void TestVTExclusionRules::matching_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("excluded");

    const QString lib = QStringLiteral("/Users/a/Library");
    QTest::newRow("prefix") << int(Prefix) << lib << QStringLiteral("/Users/a/Library/Caches") << true;
    QTest::newRow("prefix case matters") << int(Prefix) << QStringLiteral("/users/a/Library")
                                         << QStringLiteral("/Users/a/Library/Caches") << false;
    QTest::newRow("prefix not bounded at /") << int(Prefix) << lib << QStringLiteral("/Users/a/LibraryOld") << true;
    QTest::newRow("prefix no tilde expansion")
        << int(Prefix) << QStringLiteral("~/x") << QStringLiteral("/home/u/x") << false;
    QTest::newRow("substring is not a component match")
        << int(Component) << QStringLiteral("Caches") << QStringLiteral("/x/NotCaches/y") << true;
    QTest::newRow("suffix") << int(Suffix) << QStringLiteral(".gz") << QStringLiteral("/a/b.tar.gz") << true;
    QTest::newRow("suffix case matters") << int(Suffix) << QStringLiteral(".gz") << QStringLiteral("/a/b.GZ") << false;
    QTest::newRow("suffix no slash removal") << int(Suffix) << QStringLiteral("/b") << QStringLiteral("/a/b/") << false;
    QTest::newRow("exact") << int(Exact) << QStringLiteral("/swapfile") << QStringLiteral("/swapfile") << true;

    for (int kind : {Suffix, Prefix, Component})
        QTest::addRow("empty pattern, kind %d, never", kind) << kind << QString() << QString() << false;
    QTest::newRow("empty exact matches empty path") << int(Exact) << QString() << QString() << true;
    QTest::newRow("empty exact only that") << int(Exact) << QString() << QStringLiteral("/") << false;

    // Substrings compare canonically equivalent spellings as equal, on whole characters.
    const QString composed = QStringLiteral("/Users/a/caf\u00e9/x");
    const QString decomposed = QStringLiteral("/Users/a/cafe") + kAcute + QStringLiteral("/x");
    QTest::newRow("composed pattern, decomposed path")
        << int(Component) << QStringLiteral("caf\u00e9") << decomposed << true;
    QTest::newRow("decomposed pattern, composed path")
        << int(Component) << QStringLiteral("cafe") + kAcute << composed << true;
    QTest::newRow("marks in either order") << int(Component) << QStringLiteral("a") + kAcute + kDotBelow
                                           << QStringLiteral("/x/a") + kDotBelow + kAcute << true;
    QTest::newRow("no match ending inside a character")
        << int(Component) << QStringLiteral("cafe") << composed << false;
    QTest::newRow("no match ending before a mark") << int(Component) << QStringLiteral("cafe") << decomposed << false;
    QTest::newRow("lone mark is not found inside a character")
        << int(Component) << kAcute << QStringLiteral("/x/caf\u00e9") << false;
    QTest::newRow("astral character") << int(Component) << QStringLiteral("\U0001F600")
                                      << QStringLiteral("/a/\U0001F600b") << true;
    // Prefix, suffix and exact compare literally.
    QTest::newRow("prefix literal") << int(Prefix) << QStringLiteral("/Users/a/caf\u00e9") << decomposed << false;
    QTest::newRow("suffix literal") << int(Suffix) << QStringLiteral("\u00e9") << QStringLiteral("/x/e") + kAcute
                                    << false;
    QTest::newRow("exact literal") << int(Exact) << composed << decomposed << false;
}

void TestVTExclusionRules::matching()
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

void TestVTExclusionRules::oddEntriesAreSkippedWithAMessage()
{
    const QString file = m_env.root() + QStringLiteral("/odd.plist");
    const QVariantList root{QStringLiteral("not a rule"), excludeRule("PathEndsWithString", qint64(7)),
                            excludeRule("PathBeginsWithString", QStringLiteral("/kept/"))};
    QVERIFY(PropertyList::writeFile(file, root));

    QTest::ignoreMessage(
        QtWarningMsg, QRegularExpression(QStringLiteral("skipping entry 0 of .*odd\\.plist \\(not a dictionary\\)")));
    QTest::ignoreMessage(
        QtWarningMsg,
        QRegularExpression(QStringLiteral("skipping PathEndsWithString of entry 1 of .*\\(not a string\\)")));
    VTExclusionRules rules;
    rules.loadRulesAt(file);
    QVERIFY(rules.suffixRules().isEmpty());
    QCOMPARE(rules.prefixRules(), QSet<QString>{QStringLiteral("/kept/")});
}

void TestVTExclusionRules::loading_data()
{
    QTest::addColumn<QByteArray>("systemFile"); // "-": no file
    QTest::addColumn<QByteArray>("bundleFile");
    QTest::addColumn<QStringList>("loaded"); // "<kind> <pattern>", sorted

    const QByteArray a = PropertyList::toXml(QVariantList{excludeRule("PathBeginsWithString", QStringLiteral("/a/"))});
    const QByteArray b = PropertyList::toXml(QVariantList{excludeRule("PathBeginsWithString", QStringLiteral("/b/")),
                                                          excludeRule("PathBeginsWithString", QStringLiteral("/a/"))});
    const QByteArray dictRoot = PropertyList::toXml(excludeRule("PathBeginsWithString", QStringLiteral("/d/")));
    const QStringList onlyA{QStringLiteral("prefix /a/")};

    QTest::newRow("both missing") << QByteArray("-") << QByteArray("-") << QStringList();
    QTest::newRow("system only") << a << QByteArray("-") << onlyA;
    QTest::newRow("bundle only") << QByteArray("-") << a << onlyA;
    QTest::newRow("same pattern in both stored once")
        << a << b << QStringList{QStringLiteral("prefix /a/"), QStringLiteral("prefix /b/")};
    QTest::newRow("dictionary root, other still read") << dictRoot << a << onlyA;
    QTest::newRow("not a property list") << QByteArray("<plist><array><dict>") << a << onlyA;
    QTest::newRow("empty file") << a << QByteArray() << onlyA;

    // One dictionary with all four pattern keys and one the loader does not know, under each
    // rule type: only "Exclude" is used.
    const QVariantMap rule{{QStringLiteral("PathEndsWithString"), QStringLiteral(".log")},
                           {QStringLiteral("PathBeginsWithString"), QStringLiteral("/var/")},
                           {QStringLiteral("PathContainsString"), QStringLiteral("/tmp/")},
                           {QStringLiteral("PathExactlyEqualsString"), QStringLiteral("/etc/fstab")},
                           {QStringLiteral("PathMatchesRegex"), QStringLiteral(".*")}};
    const QStringList all{QStringLiteral("component /tmp/"), QStringLiteral("exact /etc/fstab"),
                          QStringLiteral("prefix /var/"), QStringLiteral("suffix .log")};
    const std::pair<const char *, QVariant> types[] = {{"Exclude", QStringLiteral("Exclude")},
                                                       {"other word", QStringLiteral("Include")},
                                                       {"other case", QStringLiteral("exclude")},
                                                       {"trailing blank", QStringLiteral("Exclude ")},
                                                       {"number", qint64(1)},
                                                       {"missing", QVariant()}};
    for (const auto &[tag, type] : types) {
        QVariantMap typed = rule;
        if (type.isValid())
            typed.insert(QStringLiteral("RuleType"), type);
        QTest::newRow(tag) << QByteArray("-") << PropertyList::toXml(QVariantList{typed})
                           << (type == QVariant(QStringLiteral("Exclude")) ? all : QStringList());
    }
}

void TestVTExclusionRules::loading()
{
    QFETCH(QByteArray, systemFile);
    QFETCH(QByteArray, bundleFile);
    QFETCH(QStringList, loaded);

    const QString dir = m_env.root() + u'/' + QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'_');
    const QString systemPath = dir + QStringLiteral("/System/SystemCompressionRules.plist");
    const QString resources = dir + QStringLiteral("/Resources");
    QDir().mkpath(resources);
    if (systemFile != "-")
        TestEnvironment::writeFile(systemPath, systemFile);
    if (bundleFile != "-")
        TestEnvironment::writeFile(resources + QStringLiteral("/ExclusionRules.plist"), bundleFile);

    VTExclusionRules::setRuleFileLocations(systemPath, resources);
    VTExclusionRules rules;
    rules.loadExclusionRules(); // no message expected: Qt Test fails on unexpected warnings below
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
    QCOMPARE(rules.mustExclude(QStringLiteral("/a/x")), loaded.contains(QStringLiteral("prefix /a/")));
    QCOMPARE(rules.mustExclude(QStringLiteral("/var/x")), loaded.contains(QStringLiteral("prefix /var/")));
    for (const QString &path : {QString(), QStringLiteral("/"), QStringLiteral("/d/x"), QStringLiteral("/home/.*")})
        QVERIFY2(!rules.mustExclude(path), qPrintable(path));
}

void TestVTExclusionRules::shippedRules()
{
    const QString resources = QStringLiteral(VANTOR_HELPER_RESOURCES);
    const QString file = resources + QStringLiteral("/ExclusionRules.plist");

    // A third-party reader takes the commented file too, and finds the rules we find.
    const QString python = TestEnvironment::pythonPlist(file);
    QVERIFY2(!python.startsWith(QLatin1String("ERROR")), qPrintable(python));
    const qsizetype entries = python.count(QLatin1String("'RuleType': 'Exclude'"));

    // The shared instance, which callers ask, loads them.
    VTExclusionRules::setRuleFileLocations(m_env.root() + QStringLiteral("/none.plist"), resources);
    const VTExclusionRules *rules = VTExclusionRules::sharedExclusionRules();
    VTExclusionRules::setRuleFileLocations(QString(), QString());
    QVERIFY(entries > 20);
    QCOMPARE(rules->suffixRules().size() + rules->prefixRules().size() + rules->componentRules().size()
                 + rules->exactRules().size(),
             entries);

    QVERIFY(VTExclusionRules::mustExcludePath(QStringLiteral("/home/u/.cache/thumbnails/large/x.png")));
    QVERIFY(VTExclusionRules::mustExcludePath(QStringLiteral("/home/u/.local/share/Vantor/history.db")));
    QVERIFY(VTExclusionRules::mustExcludePath(QStringLiteral("/home/u/Downloads/linux.tar.xz")));
    QVERIFY(VTExclusionRules::mustExcludePath(QStringLiteral("/var/lib/dpkg/status")));
    QVERIFY(!VTExclusionRules::mustExcludePath(QStringLiteral("/home/u/Documents/notes.txt")));
    QVERIFY(!VTExclusionRules::mustExcludePath(QStringLiteral("/home/u/src/project/main.cpp")));
}

void TestVTExclusionRules::randomisedAgainstLinearScan()
{
    // Few letters, so patterns occur often; composed and decomposed accents, a lone mark,
    // a character outside the basic plane, and Hangul, which decomposes into several letters.
    const QStringList pieces{QStringLiteral("/"),
                             QStringLiteral("a"),
                             QStringLiteral("b"),
                             QStringLiteral("A"),
                             QStringLiteral("."),
                             QStringLiteral("e"),
                             QStringLiteral("\u00e9"),
                             QStringLiteral("e") + kAcute,
                             kAcute,
                             kDotBelow,
                             QStringLiteral("\u1EB9"),
                             QStringLiteral("\U0001F600"),
                             QStringLiteral("\uAC00"),
                             QStringLiteral("\u1100\u1161")};
    QRandomGenerator random(20240611);
    auto text = [&](int maxPieces) {
        QString out;
        for (int n = int(random.bounded(maxPieces + 1)); n > 0; --n)
            out += pieces.at(random.bounded(int(pieces.size())));
        return out;
    };

    int excluded = 0;
    int asked = 0;
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
            QVERIFY2(rules.mustExclude(path) == expected,
                     qPrintable(QStringLiteral("set %1, path %2, expected %3").arg(set).arg(path).arg(expected)));
            excluded += expected;
            ++asked;
        }
    }
    // Both answers occur often enough for the comparison to mean something.
    QVERIFY(excluded > asked / 10);
    QVERIFY(excluded < asked * 9 / 10);
}

QTEST_GUILESS_MAIN(TestVTExclusionRules)
#include "tst_vtexclusionrules.moc"
