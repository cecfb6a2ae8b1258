// Resolving an alias of a folder moved elsewhere on its volume, in a tree of 100,000
// folders, against one that did not move. File handles are off: an ordinary user's case.

#include "common/AliasResolver.h"
#include "common/BDAlias.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

namespace {

constexpr int kFanOut[3] = {10, 100, 100}; // 10 * 100 * 100 = 100,000 leaf folders
constexpr int kRounds = 5;

double medianMs(BDAlias &alias, const QString &expected)
{
    QList<double> times;
    for (int i = 0; i < kRounds; ++i) {
        QElapsedTimer t;
        t.start();
        const QString path = alias.fullPath();
        times.append(t.nsecsElapsed() / 1e6);
        if (path != expected) {
            std::fprintf(stderr, "bench-alias-resolve: resolved to '%s', expected '%s'\n", qPrintable(path),
                         qPrintable(expected));
            std::exit(1);
        }
    }
    std::sort(times.begin(), times.end());
    return times[kRounds / 2];
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    // In the home folder, where moved folders are searched for, on its own volume.
    QDir().mkpath(QDir::homePath() + QStringLiteral("/.cache"));
    QTemporaryDir dir(QDir::homePath() + QStringLiteral("/.cache/bench-alias-XXXXXX"));
    if (!dir.isValid()) {
        std::fprintf(stderr, "bench-alias-resolve: cannot make a work folder\n");
        return 1;
    }
    const QByteArray root = QFile::encodeName(QDir(dir.path()).canonicalPath());
    for (int a = 0; a < kFanOut[0]; ++a) {
        const QByteArray pa = root + "/a" + QByteArray::number(a);
        ::mkdir(pa.constData(), 0700);
        for (int b = 0; b < kFanOut[1]; ++b) {
            const QByteArray pb = pa + "/b" + QByteArray::number(b);
            ::mkdir(pb.constData(), 0700);
            for (int c = 0; c < kFanOut[2]; ++c)
                ::mkdir((pb + "/c" + QByteArray::number(c)).constData(), 0700);
        }
    }
    const QString base = QFile::decodeName(root);
    const QString still = base + QStringLiteral("/a5/b50/still");
    const QString from = base + QStringLiteral("/a0/b0/moving");
    const QString to = base + QStringLiteral("/a9/b99/c99/moved");
    QDir().mkpath(still);
    QDir().mkpath(from);
    AliasResolver::setUseFileHandles(false);
    auto stillAlias = BDAlias::aliasWithPath(still);
    auto movedAlias = BDAlias::aliasWithPath(from);
    if (!stillAlias || !movedAlias || !QDir().rename(from, to))
        return 1;

    const double unmoved = medianMs(*stillAlias, still);
    const double moved = medianMs(*movedAlias, to);
    std::printf("unmoved %.3f ms\nmoved %.3f ms (tree of 100000 folders, median of %d)\n", unmoved, moved, kRounds);
    std::printf("RESULT alias-resolve-moved %.3f ms ratio=%.1f\n", moved, moved / unmoved);
    return 0;
}
