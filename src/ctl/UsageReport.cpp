#include "ctl/UsageReport.h"

#include "btrfs/SkippedFiles.h"
#include "common/AliasVolume.h"
#include "common/VTUtil.h"
#include "platform/FileManager.h"

#include <QFile>
#include <QJsonArray>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

QByteArray joined(const QByteArray &folder, const QByteArray &name)
{
    return folder.isEmpty() ? name : folder + '/' + name;
}

QJsonValue byteCount(qint64 bytes)
{
    return QJsonValue(bytes);
}

QJsonObject count(const FolderUsage::Count &count)
{
    return {{QStringLiteral("files"), count.files}, {QStringLiteral("bytes"), byteCount(count.bytes)}};
}

QString files(const FolderUsage::Count &count)
{
    return QStringLiteral("%1 %2, %3")
        .arg(count.files)
        .arg(count.files == 1 ? QStringLiteral("file") : QStringLiteral("files"), VTUtil::getPrettySize(count.bytes));
}

const char *reasonKey(FolderWalker::LeftOut::Reason reason)
{
    switch (reason) {
    case FolderWalker::LeftOut::Reason::Excluded:
        return "excluded";
    case FolderWalker::LeftOut::Reason::OtherFileSystem:
        return "otherFileSystem";
    case FolderWalker::LeftOut::Reason::ReadOnlySubvolume:
        return "readOnlySubvolume";
    case FolderWalker::LeftOut::Reason::Unreadable:
        break;
    }
    return "unreadable";
}

QString reasonText(const FolderWalker::LeftOut &leftOut)
{
    switch (leftOut.reason) {
    case FolderWalker::LeftOut::Reason::Excluded:
        return QStringLiteral("excluded by Vantor's rules");
    case FolderWalker::LeftOut::Reason::OtherFileSystem:
        return QStringLiteral("another file system");
    case FolderWalker::LeftOut::Reason::ReadOnlySubvolume:
        return QStringLiteral("a read-only subvolume, such as a snapshot");
    case FolderWalker::LeftOut::Reason::Unreadable:
        break;
    }
    return QStringLiteral("cannot be read: ") + QString::fromLocal8Bit(std::strerror(leftOut.error));
}

// The active swap files, as /proc/swaps names them.
QSet<std::pair<quint64, quint64>> activeSwapFiles()
{
    QSet<std::pair<quint64, quint64>> swapFiles;
    QFile swaps(QStringLiteral("/proc/swaps"));
    if (!swaps.open(QIODevice::ReadOnly))
        return swapFiles;
    const QList<QByteArray> lines = swaps.readAll().split('\n');
    for (const QByteArray &line : lines.mid(1)) {
        const QByteArray path = AliasVolume::unescape(line.left(line.indexOf(' ')));
        struct stat st { };
        if (!path.isEmpty() && ::stat(path.constData(), &st) == 0 && S_ISREG(st.st_mode))
            swapFiles.insert({quint64(st.st_dev), quint64(st.st_ino)});
    }
    return swapFiles;
}

} // namespace

UsageReport::UsageReport(int depth, const QList<QByteArray> &watched, bool progress)
    : m_depth(depth)
    , m_watched(watched)
    , m_swapFiles(activeSwapFiles())
    , m_progress(progress)
{
    m_told.start();
}

QString UsageReport::shown(const QByteArray &path)
{
    return FileManager::stringWithFileSystemRepresentation(path).value_or(
        QString::fromLatin1(path.toPercentEncoding("/")));
}

bool UsageReport::isWatched(const QByteArray &realPath) const
{
    for (const QByteArray &folder : m_watched) {
        if (realPath == folder || (realPath.startsWith(folder) && realPath.at(folder.size()) == '/'))
            return true;
    }
    return false;
}

RescanCache *UsageReport::cache()
{
    if (!m_cacheLoaded) {
        m_cacheLoaded = true;
        m_cache.emplace();
        // Missing or damaged, it is no cache: the files are read instead.
        if (!m_cache->load())
            m_cache.reset();
    }
    return m_cache ? &*m_cache : nullptr;
}

FileUsage::Kind UsageReport::kindOf(int fd, const struct stat &st) const
{
    // A swap file is NOCOW too, so it is told apart first.
    if (m_swapFiles.contains({quint64(st.st_dev), quint64(st.st_ino)}))
        return FileUsage::Kind::SwapFile;
    if (SkippedFiles::cannotCompress(fd) == SkippedFiles::Reason::NoCopyOnWrite)
        return FileUsage::Kind::NoCopyOnWrite;
    return FileUsage::Kind::Compressible;
}

std::vector<UsageReport::Node *> UsageReport::nodesFor(Node *top, const QByteArray &relative)
{
    std::vector<Node *> nodes{top};
    if (relative.isEmpty())
        return nodes;
    const QList<QByteArray> names = relative.split('/');
    Node *node = top;
    for (qsizetype level = 0; level < names.size() && level < m_depth; ++level) {
        std::unique_ptr<Node> &child = node->children[names[level]];
        if (!child) {
            child = std::make_unique<Node>();
            child->path = node->path + '/' + names[level];
            child->real = node->real + '/' + names[level];
            child->watched = node->watched || isWatched(child->real);
        }
        node = child.get();
        nodes.push_back(node);
    }
    return nodes;
}

void UsageReport::tell(bool done)
{
    if (!m_progress || (!done && m_told.elapsed() < 200))
        return;
    m_told.restart();
    // On one line, written over; cleared once the report is ready.
    if (done)
        std::fputs("\r\033[K", stderr);
    else
        std::fprintf(stderr, "\r\033[Kvantorctl: %lld files, %s of data read", static_cast<long long>(m_files),
                     qPrintable(VTUtil::getPrettySize(quint64(m_read))));
    std::fflush(stderr);
}

void UsageReport::addFile(int rootFd, const FolderWalker &walker, const QByteArray &folder, const QByteArray &name,
                          const struct stat &st, bool watched, const std::vector<Node *> &nodes)
{
    // A file with several names counts once.
    if (st.st_nlink > 1) {
        const qsizetype seen = m_linked.size();
        m_linked.insert({quint64(st.st_dev), quint64(st.st_ino)});
        if (m_linked.size() == seen)
            return;
    }
    ++m_files;
    const QByteArray path = joined(folder, name);
    const int fd = FolderWalker::openNoAtime(rootFd, path.constData(), O_RDONLY | O_NOFOLLOW);
    if (fd < 0) {
        if (errno != ENOENT) {
            for (Node *node : nodes)
                node->usage.addUnreadable(st);
        }
        return;
    }
    FileUsage::Kind kind = kindOf(fd, st);
    // What the helper found still holds while the file is as it was.
    std::optional<RescanCache::Figures> known;
    QList<ExtentMap::Stored> stored;
    if (watched && kind == FileUsage::Kind::Compressible && cache())
        known = m_cache->find(st, stored);
    // The helper asked the rules about every file it knows.
    if (!known && kind == FileUsage::Kind::Compressible && walker.isExcluded(path))
        kind = FileUsage::Kind::Excluded;
    const bool measured = m_file.measure(fd, st, kind, m_model, known ? &*known : nullptr, stored);
    ::close(fd);
    for (Node *node : nodes) {
        if (measured)
            node->usage.add(m_file, st);
        else
            node->usage.addUnreadable(st);
    }
    m_read += m_file.read;
    tell();
}

bool UsageReport::add(const QByteArray &path, QString *error)
{
    const int fd = FolderWalker::openNoAtime(AT_FDCWD, path.constData(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) {
        const int why = errno;
        *error = shown(path) + QStringLiteral(": ")
            + (why == ENOENT        ? QStringLiteral("no such folder")
                   : why == ENOTDIR ? QStringLiteral("not a folder")
                                    : QStringLiteral("cannot be read: ") + QString::fromLocal8Bit(std::strerror(why)));
        return false;
    }
    struct statfs fs { };
    if (::fstatfs(fd, &fs) != 0 || fs.f_type != BTRFS_SUPER_MAGIC) {
        ::close(fd);
        *error = shown(path) + QStringLiteral(": not on btrfs, the only file system whose compression Vantor reports");
        return false;
    }
    char *resolved = ::realpath(path.constData(), nullptr);
    const QByteArray real = resolved ? QByteArray(resolved) : path;
    std::free(resolved);

    auto top = std::make_unique<Node>();
    top->path = path;
    top->real = real;
    top->watched = isWatched(real);
    Node *root = top.get();
    m_folders.push_back(std::move(top));
    FolderWalker walker;
    // The exclusion rules speak of resolved paths, as the helper sees its folders.
    walker.walk(fd, real, QByteArray(), [&](const FolderWalker::Folder &folder) {
        const std::vector<Node *> nodes = nodesFor(root, folder.relative);
        const bool watched = nodes.back()->watched || isWatched(joined(real, folder.relative));
        for (const FolderWalker::File &file : folder.files)
            addFile(fd, walker, folder.relative, folder.name(file), file.st, watched, nodes);
    });
    for (const FolderWalker::LeftOut &leftOut : walker.leftOut()) {
        const qsizetype slash = leftOut.relative.lastIndexOf('/');
        for (Node *node : nodesFor(root, slash < 0 ? QByteArray() : leftOut.relative.left(slash)))
            node->leftOut.append(leftOut);
    }
    ::close(fd);
    tell(true);
    return true;
}

QString UsageReport::text() const
{
    QString text;
    for (const std::unique_ptr<Node> &node : m_folders)
        print(*node, node->path, &text);
    return text;
}

void UsageReport::print(const Node &node, const QByteArray &top, QString *text) const
{
    const FolderUsage &usage = node.usage;
    const auto line = [text](const QString &label, const QString &value) {
        *text += QStringLiteral("  ") + label.leftJustified(20) + value + u'\n';
    };
    const auto size = [](qint64 bytes) { return VTUtil::getPrettySize(quint64(qMax(bytes, qint64(0)))); };
    if (!text->isEmpty())
        *text += u'\n';
    *text += shown(node.path) + (node.watched ? QStringLiteral(" (watched by Vantor)") : QString()) + u'\n';
    line(QStringLiteral("Files"), files(usage.all));
    line(QStringLiteral("Referenced"), size(usage.referenced));
    line(QStringLiteral("On disk"), size(usage.disk()));
    line(QStringLiteral("Compressed"), size(usage.compressed) + QStringLiteral(", saving ") + size(usage.savings()));
    line(QStringLiteral("Would shrink"),
         size(usage.wouldShrink) + QStringLiteral(", Vantor would save ") + size(usage.wouldSave));
    line(QStringLiteral("Would not shrink"), size(usage.wouldNotShrink));
    if (usage.plainShared > 0)
        line(QStringLiteral("Plain and shared"), size(usage.plainShared) + QStringLiteral(", left as it is"));
    line(QStringLiteral("Exclusive"), size(usage.exclusive));
    line(QStringLiteral("Shared"), size(usage.shared()));
    const std::pair<const char *, const FolderUsage::Count *> counts[] = {{"No copy-on-write", &usage.noCopyOnWrite},
                                                                          {"Swap files", &usage.swapFiles},
                                                                          {"Excluded", &usage.excluded},
                                                                          {"Unreadable", &usage.unreadable}};
    for (const auto &[label, count] : counts) {
        if (count->files > 0)
            line(QLatin1String(label), files(*count));
    }
    QString label = QStringLiteral("Left out");
    for (const FolderWalker::LeftOut &leftOut : node.leftOut) {
        line(label, shown(joined(top, leftOut.relative)) + QStringLiteral(" (") + reasonText(leftOut) + u')');
        label.clear();
    }
    for (const auto &[name, child] : node.children)
        print(*child, top, text);
}

QJsonObject UsageReport::json() const
{
    QJsonArray folders;
    for (const std::unique_ptr<Node> &node : m_folders)
        folders.append(json(*node, node->path, 0));
    return {{QStringLiteral("folders"), folders}};
}

QJsonObject UsageReport::json(const Node &node, const QByteArray &top, int level) const
{
    const FolderUsage &usage = node.usage;
    QJsonArray leftOut;
    for (const FolderWalker::LeftOut &item : node.leftOut) {
        QJsonObject entry{{QStringLiteral("path"), shown(joined(top, item.relative))},
                          {QStringLiteral("reason"), QLatin1String(reasonKey(item.reason))}};
        if (item.error != 0)
            entry.insert(QStringLiteral("error"), QString::fromLocal8Bit(std::strerror(item.error)));
        leftOut.append(entry);
    }
    QJsonObject object{{QStringLiteral("path"), shown(node.path)},
                       {QStringLiteral("watched"), node.watched},
                       {QStringLiteral("files"), usage.all.files},
                       {QStringLiteral("bytes"), byteCount(usage.all.bytes)},
                       {QStringLiteral("referenced"), byteCount(usage.referenced)},
                       {QStringLiteral("disk"), byteCount(usage.disk())},
                       {QStringLiteral("exclusive"), byteCount(usage.exclusive)},
                       {QStringLiteral("shared"), byteCount(usage.shared())},
                       {QStringLiteral("compressed"), byteCount(usage.compressed)},
                       {QStringLiteral("savings"), byteCount(usage.savings())},
                       {QStringLiteral("wouldShrink"), byteCount(usage.wouldShrink)},
                       {QStringLiteral("wouldSave"), byteCount(usage.wouldSave)},
                       {QStringLiteral("wouldNotShrink"), byteCount(usage.wouldNotShrink)},
                       {QStringLiteral("plainShared"), byteCount(usage.plainShared)},
                       {QStringLiteral("noCopyOnWrite"), count(usage.noCopyOnWrite)},
                       {QStringLiteral("swapFiles"), count(usage.swapFiles)},
                       {QStringLiteral("excluded"), count(usage.excluded)},
                       {QStringLiteral("unreadable"), count(usage.unreadable)},
                       {QStringLiteral("leftOut"), leftOut}};
    if (level < m_depth) {
        QJsonArray folders;
        for (const auto &[name, child] : node.children)
            folders.append(json(*child, top, level + 1));
        object.insert(QStringLiteral("folders"), folders);
    }
    return object;
}
