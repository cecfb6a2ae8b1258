// How fast the helper's question "must this path be excluded?" is answered, by the compiled
// matcher and by testing every rule in turn, against the shipped rules and 10,000 generated
// ones. Prints the paths per second of each and, last, the result line.

#include "common/VTExclusionRules.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QStringList>

#include <cstdio>
#include <functional>
#include <vector>

namespace {

constexpr int kPaths = 1000000;
constexpr int kChunk = 50000;
constexpr int kGeneratedRules = 10000;
// Testing 10,000 rules one by one for a million paths would take minutes: one path in this
// many is timed for the linear scan.
constexpr int kLinearSampleEvery = 100;

const QStringList kUsers{QStringLiteral("alice"), QStringLiteral("bob"), QStringLiteral("chen"),
                         QStringLiteral("zo\u00eb"), QStringLiteral("jos\u00e9")};
const QStringList kTops{
    QStringLiteral("Documents"),    QStringLiteral("Pictures"),     QStringLiteral("Music"),
    QStringLiteral("Downloads"),    QStringLiteral("src"),          QStringLiteral(".cache"),
    QStringLiteral(".local/share"), QStringLiteral(".config"),      QStringLiteral("Projects"),
    QStringLiteral("Vid\u00e9os"),  QStringLiteral("\u5199\u771f"), QStringLiteral(".mozilla/firefox/k2x9.default")};
const QStringList kNames{QStringLiteral("work"),
                         QStringLiteral("archive"),
                         QStringLiteral("2023"),
                         QStringLiteral("R\u00e9sum\u00e9s"),
                         QStringLiteral("\u00c5ngstr\u00f6m"),
                         QStringLiteral("build"),
                         QStringLiteral("node_modules"),
                         QStringLiteral("lib"),
                         QStringLiteral("thumbnails"),
                         QStringLiteral("Camera"),
                         QStringLiteral("\u65e5\u672c\u8a9e"),
                         QStringLiteral("tests"),
                         QStringLiteral("assets"),
                         QStringLiteral(".git/objects/4f"),
                         QStringLiteral("na\u00efve"),
                         QStringLiteral("Backups")};
const QStringList kExtensions{QStringLiteral(".txt"),    QStringLiteral(".cpp"),  QStringLiteral(".h"),
                              QStringLiteral(".jpg"),    QStringLiteral(".JPG"),  QStringLiteral(".png"),
                              QStringLiteral(".gz"),     QStringLiteral(".docx"), QStringLiteral(".json"),
                              QStringLiteral(".md"),     QStringLiteral(".py"),   QStringLiteral(".o"),
                              QStringLiteral(".pdf"),    QStringLiteral(".mp3"),  QStringLiteral(".log"),
                              QStringLiteral(".sqlite"), QStringLiteral("")};
const QStringList kSystem{QStringLiteral("/usr/share/doc/"),     QStringLiteral("/usr/lib/x86_64-linux-gnu/"),
                          QStringLiteral("/var/lib/dpkg/info/"), QStringLiteral("/etc/"),
                          QStringLiteral("/var/log/journal/"),   QStringLiteral("/opt/app/")};

QString pick(QRandomGenerator &random, const QStringList &list)
{
    return list.at(random.bounded(int(list.size())));
}

QString makePath(QRandomGenerator &random)
{
    QString path;
    if (random.bounded(10) == 0) {
        path = pick(random, kSystem);
    } else {
        path = QStringLiteral("/home/") + pick(random, kUsers) + u'/' + pick(random, kTops) + u'/';
    }
    for (int depth = int(random.bounded(5)); depth > 0; --depth)
        path += pick(random, kNames) + QString::number(random.bounded(1000)) + u'/';
    path += QStringLiteral("file") + QString::number(random.bounded(100000)) + pick(random, kExtensions);
    // Some file systems and archives hand names over decomposed.
    if (random.bounded(20) == 0)
        path = path.normalized(QString::NormalizationForm_D);
    return path;
}

qsizetype ruleCount(const VTExclusionRules &rules)
{
    return rules.suffixRules().size() + rules.prefixRules().size() + rules.componentRules().size()
        + rules.exactRules().size();
}

void addGeneratedRules(VTExclusionRules &rules, QRandomGenerator &random)
{
    // Generated patterns repeat now and then; the sets keep each once, so add until there are enough.
    for (int i = 0; ruleCount(rules) < kGeneratedRules; ++i) {
        const QString n = QString::number(random.bounded(1000));
        switch (i % 4) {
        case 0:
            rules.addRuleForPathPrefix(QStringLiteral("/home/") + pick(random, kUsers) + u'/' + pick(random, kTops)
                                       + u'/' + pick(random, kNames) + n + u'/');
            break;
        case 1:
            rules.addRuleForPathSuffix(QStringLiteral("file") + QString::number(random.bounded(100000))
                                       + pick(random, kExtensions));
            break;
        case 2:
            rules.addRuleForPathComponent(u'/' + pick(random, kNames) + n + u'/' + pick(random, kNames));
            break;
        default:
            rules.addRuleForPathEqualsTo(QStringLiteral("/home/") + pick(random, kUsers) + u'/' + pick(random, kTops)
                                         + QStringLiteral("/file") + n + pick(random, kExtensions));
            break;
        }
    }
}

struct Measure {
    double fastPerSecond = 0;
    double linearPerSecond = 0;
    qint64 excluded = 0;
    qint64 disagreements = 0;
};

// Runs both answers over the same million paths, made afresh chunk by chunk so they need not
// all be held at once; only the questions are timed.
Measure measure(const VTExclusionRules &rules, int linearEvery)
{
    QRandomGenerator random(4711);
    Measure m;
    qint64 fastNs = 0;
    qint64 linearNs = 0;
    qint64 linearCount = 0;
    std::vector<QString> paths(kChunk);
    std::vector<char> fastAnswers(kChunk);
    for (int done = 0; done < kPaths; done += kChunk) {
        for (QString &path : paths)
            path = makePath(random);

        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < kChunk; ++i)
            fastAnswers[i] = rules.mustExclude(paths[i]);
        fastNs += timer.nsecsElapsed();

        timer.restart();
        std::vector<char> linearAnswers;
        linearAnswers.reserve(kChunk / linearEvery + 1);
        for (int i = 0; i < kChunk; i += linearEvery)
            linearAnswers.push_back(rules.mustExcludeByLinearScan(paths[i]));
        linearNs += timer.nsecsElapsed();
        linearCount += qint64(linearAnswers.size());

        for (int i = 0; i < kChunk; ++i)
            m.excluded += fastAnswers[i];
        for (size_t k = 0; k < linearAnswers.size(); ++k)
            m.disagreements += linearAnswers[k] != fastAnswers[k * linearEvery];
    }
    m.fastPerSecond = double(kPaths) / (double(fastNs) / 1e9);
    m.linearPerSecond = double(linearCount) / (double(linearNs) / 1e9);
    return m;
}

void report(const char *name, qsizetype ruleCount, const Measure &m)
{
    std::printf("%s (%lld rules): fast %.0f paths/s, linear scan %.0f paths/s, ratio %.2f, %lld of %d excluded\n", name,
                static_cast<long long>(ruleCount), m.fastPerSecond, m.linearPerSecond,
                m.fastPerSecond / m.linearPerSecond, static_cast<long long>(m.excluded), kPaths);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString resources = args.size() > 1 ? args.at(1) : QStringLiteral(VANTOR_HELPER_RESOURCES);

    VTExclusionRules::setRuleFileLocations(QStringLiteral("/nonexistent"), resources);
    VTExclusionRules shipped;
    shipped.loadExclusionRules();
    if (ruleCount(shipped) == 0) {
        std::fprintf(stderr, "bench-exclusion: no rules in %s/ExclusionRules.plist\n", qPrintable(resources));
        return 1;
    }
    const Measure small = measure(shipped, 1);
    report("shipped rules", ruleCount(shipped), small);

    VTExclusionRules generated;
    QRandomGenerator random(1234);
    addGeneratedRules(generated, random);
    const Measure large = measure(generated, kLinearSampleEvery);
    report("generated rules", ruleCount(generated), large);

    if (small.disagreements || large.disagreements) {
        std::fprintf(stderr, "bench-exclusion: fast and linear answers disagree on %lld paths\n",
                     static_cast<long long>(small.disagreements + large.disagreements));
        return 1;
    }
    std::printf("RESULT exclusion-%d-rules %.0f paths/s ratio=%.1f\n", kGeneratedRules, large.fastPerSecond,
                large.fastPerSecond / large.linearPerSecond);
    return 0;
}
