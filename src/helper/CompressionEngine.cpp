#include "helper/CompressionEngine.h"

#include "common/BDAlias.h"
#include "helper/BtrfsCompressor.h"
#include "helper/CompressionWorker.h"
#include "helper/DesktopNotifier.h"
#include "common/VTUtil.h"
#include "helper/FolderWatch.h"
#include "helper/FreeSpaceGuard.h"
#include "helper/RescanSchedule.h"
#include "helper/SavingsModel.h"
#include "helper/SettleQueue.h"
#include "helper/HelperLog.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

CompressionEngine::CompressionEngine(SavingsModel *savings, DesktopNotifier *notifier, FolderWatch *watch,
                                     SettleQueue *settle, QObject *parent)
    : QObject(parent)
    , m_savings(savings)
    , m_notifier(notifier)
    , m_watch(watch)
    , m_settle(settle)
    , m_worker(new CompressionWorker(watch, this))
    , m_space(new FreeSpaceGuard(this))
    , m_rescan(new RescanSchedule([this] { return isBusy() || RescanSchedule::isMachineBusy(); },
                                  RescanSchedule::kIntervalMs, RescanSchedule::kDeferMs, this))
{
    connect(m_worker, &CompressionWorker::progress, this, &CompressionEngine::progress);
    connect(m_worker, &CompressionWorker::finished, this, &CompressionEngine::finished);
    connect(m_worker, &CompressionWorker::failed, this, &CompressionEngine::failed);
    connect(m_worker, &CompressionWorker::unsettled, this, &CompressionEngine::unsettled);
    connect(m_worker, &CompressionWorker::watchLimitReached, this, &CompressionEngine::watchLimitReached);
    connect(m_worker, &CompressionWorker::sharedFound, this, [this](qint64 id) { m_sharedFound.insert(id); });
    connect(m_worker, &CompressionWorker::waitingForSpace, this, &CompressionEngine::waitingForSpace);
    connect(m_space, &FreeSpaceGuard::roomAgain, this, &CompressionEngine::roomAgain);
    // Ids of the old file mean nothing in the new one.
    connect(m_savings, &SavingsModel::storeReopened, this, [this] {
        const QList<qint64> ids = m_folders.keys();
        for (qint64 id : ids)
            forget(id);
    });
    connect(m_savings, &SavingsModel::recordVanished, this, &CompressionEngine::forget);
    // Changes the watch could not see (made while the helper was not looking, or past the
    // limits) are found by an occasional rescan at idle; a timer hours apart, not polling.
    connect(m_rescan, &RescanSchedule::due, m_worker, &CompressionWorker::rescanAll);
    m_worker->start();
}

CompressionEngine::~CompressionEngine()
{
    stop();
    for (const Folder &folder : std::as_const(m_folders))
        ::close(folder.fd);
}

void CompressionEngine::stop()
{
    m_worker->stop();
    m_savings->flush();
}

void CompressionEngine::resume()
{
    for (const HistoryRecord &record : m_savings->records(HistoryContext::Predicate::Enabled)) {
        QString folder = record.folder;
        if (!QFileInfo(folder).isDir()) {
            // Moved while the helper was not running: the alias record finds it.
            const std::unique_ptr<BDAlias> alias = BDAlias::aliasWithData(m_savings->folderAlias(record.objectID));
            const QString found = alias ? alias->fullPath() : QString();
            if (found.isEmpty() || found == folder || !QFileInfo(found).isDir())
                continue; // gone: listed by its recorded path
            if (!m_savings->renameFolder(record.objectID, folder, found))
                continue;
            qCInfo(lcHelper, "\"%s\" was moved to \"%s\" while the helper was not running", qPrintable(folder),
                   qPrintable(found));
            folder = found;
        }
        m_folders[record.objectID].status = record.status;
        m_folders[record.objectID].savings = record.savings;
        addFolder(record.objectID, folder);
    }
}

void CompressionEngine::addFolder(qint64 id, const QString &folder)
{
    // A record the store already has as done (at start-up) was settled, and its user told.
    const bool done = m_folders.value(id).status >= 100;
    forget(id);
    const QByteArray path = QFile::encodeName(folder);
    const int fd = ::open(path.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        failed(id, QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    if (BtrfsCompressor::isBtrfs(fd)) {
        Folder &entry = m_folders[id];
        entry.fd = fd;
        entry.path = folder;
        m_worker->addFolder(id, ::fcntl(fd, F_DUPFD_CLOEXEC, 0), path);
        return;
    }
    ::close(fd);
    if (done)
        return;
    // Nothing to do and nothing saved: the folder is done, and the user learns why.
    const QString fileSystem = BtrfsCompressor::fileSystemName(path);
    m_savings->setProgress(id, 100, 0);
    m_savings->flush();
    m_notifier->notify(QStringLiteral("Vantor cannot compress \"%1\"").arg(folder),
                       QStringLiteral("The folder %1 is on %2, a file system without transparent compression. "
                                      "Vantor compresses folders on btrfs only; nothing in this folder was changed.")
                           .arg(folder, fileSystem));
}

void CompressionEngine::forget(qint64 id)
{
    m_worker->cancel(id);
    m_settle->remove(id);
    m_limited.remove(id);
    m_space->forget(id);
    m_toldWaiting.remove(id);
    m_sharedFound.remove(id);
    const auto it = m_folders.constFind(id);
    if (it == m_folders.cend())
        return;
    if (it->fd >= 0)
        ::close(it->fd);
    m_folders.erase(it);
}

bool CompressionEngine::isBusy() const
{
    if (!m_settle->isEmpty())
        return true;
    for (auto it = m_folders.cbegin(); it != m_folders.cend(); ++it) {
        if (m_worker->isBusy(it.key()))
            return true;
    }
    return false;
}

void CompressionEngine::removeFolder(qint64 id)
{
    forget(id);
}

void CompressionEngine::setActive(bool active)
{
    m_worker->setActive(active);
}

void CompressionEngine::report(qint64 id, quint32 status, quint64 savings, bool flush)
{
    const auto it = m_folders.find(id);
    if (it == m_folders.end())
        return; // removed meanwhile
    it->status = status;
    it->savings = savings;
    m_savings->setProgress(id, status, savings);
    if (flush)
        m_savings->flush();
}

void CompressionEngine::changed(qint64 id, const QByteArray &relative)
{
    if (!m_folders.contains(id))
        return;
    m_settle->add(id, relative);
    const Folder &folder = m_folders[id];
    if (folder.status >= 100)
        report(id, 99, folder.savings, false);
}

void CompressionEngine::settled(qint64 id, const QByteArray &relative)
{
    m_worker->scan(id, relative, false);
}

void CompressionEngine::unsettled(qint64 id, const QByteArray &relative, qint64 waitMs)
{
    if (m_folders.contains(id))
        m_settle->add(id, relative, waitMs);
}

void CompressionEngine::progress(qint64 id, quint32 status, quint64 savings)
{
    report(id, std::min(status, 99u), savings, false);
}

void CompressionEngine::finished(qint64 id, quint32 status, quint64 savings, quint64 shared)
{
    // Done only when no change waits to settle either (the worker has no more work queued).
    const bool waiting = m_settle->isWaiting(id);
    m_toldWaiting.remove(id);
    report(id, waiting ? std::min(status, 99u) : status, savings, !waiting);
    // Told once the whole folder is known, with its whole figure; a rescan that finds only
    // what was told before says nothing.
    if (!waiting && shared > 0 && m_sharedFound.remove(id))
        sharedLeft(id, shared);
}

void CompressionEngine::failed(qint64 id, const QString &reason)
{
    qCWarning(lcHelper, "cannot compress folder record %lld: %s", static_cast<long long>(id), qPrintable(reason));
}

void CompressionEngine::watchLimitReached(qint64 id)
{
    const auto it = m_folders.constFind(id);
    if (it == m_folders.cend())
        return;
    qCWarning(lcHelper,
              "the watch limit is reached at %lld watches (fs.inotify.max_user_watches = %d); \"%s\" is "
              "rescanned every %d minutes instead of followed",
              static_cast<long long>(m_watch->count()), FolderWatch::limit(), qPrintable(it->path),
              kLimitedRescanMs / 60000);
    if (m_limited.contains(id))
        return;
    m_limited.insert(id);
    auto *timer = new QTimer(this);
    timer->setInterval(kLimitedRescanMs);
    connect(timer, &QTimer::timeout, this, [this, id, timer] {
        if (!m_limited.contains(id)) {
            timer->deleteLater();
            return;
        }
        m_worker->scan(id, QByteArray(), true);
    });
    timer->start();
}

void CompressionEngine::overflowed()
{
    qCWarning(lcHelper,
              "changes came faster than they could be read and some were lost; "
              "every watched folder is rescanned");
    // Work waits for every folder now.
    for (auto it = m_folders.cbegin(); it != m_folders.cend(); ++it) {
        if (it->status >= 100)
            report(it.key(), 99, it->savings, false);
    }
    m_worker->rescanAll();
}

void CompressionEngine::folderMoved(qint64 id)
{
    const auto it = m_folders.find(id);
    if (it == m_folders.end())
        return;
    char buffer[PATH_MAX];
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(it->fd);
    const ssize_t size = ::readlink(link.constData(), buffer, sizeof buffer);
    if (size <= 0)
        return;
    const QString path = QFile::decodeName(QByteArray(buffer, size));
    if (path.endsWith(QLatin1String(" (deleted)"))) {
        // Removed, or moved to another file system (a copy, then removal): listed by its recorded path.
        qCWarning(lcHelper, "\"%s\" is gone; it stays listed until it is removed", qPrintable(it->path));
        forget(id);
        return;
    }
    if (path == it->path || !m_savings->renameFolder(id, it->path, path))
        return;
    qCInfo(lcHelper, "\"%s\" was moved to \"%s\"", qPrintable(it->path), qPrintable(path));
    it->path = path;
    m_worker->setPath(id, QFile::encodeName(path));
}

void CompressionEngine::tell(const QString &summary, const QString &body)
{
    qCInfo(lcHelper, "%s", qPrintable(body));
    m_notifier->notify(summary, body);
}

void CompressionEngine::sharedLeft(qint64 id, quint64 bytes)
{
    if (!m_folders.contains(id) || m_toldShared.contains(id))
        return;
    m_toldShared.insert(id);
    tell(QStringLiteral("Shared data left as it is"),
         QStringLiteral("%1 in %2 is shared with snapshots or copies and was left as it is: "
                        "compressing it now would take more space until those are deleted")
             .arg(VTUtil::getPrettySize(bytes), QFileInfo(m_folders.value(id).path).fileName()));
}

void CompressionEngine::waitingForSpace(qint64 id, quint32 status, quint64 savings, quint64 bytesToFree)
{
    if (!m_folders.contains(id))
        return;
    report(id, status, savings, true);
    m_space->wait(id, QFile::encodeName(m_folders.value(id).path));
    if (m_toldWaiting.contains(id))
        return;
    m_toldWaiting.insert(id);
    tell(QStringLiteral("Vantor is waiting for disk space"),
         QStringLiteral("%1 waits to be compressed: its disk is nearly full. "
                        "Free %2 on it and Vantor goes on by itself.")
             .arg(QFileInfo(m_folders.value(id).path).fileName(), VTUtil::getPrettySize(bytesToFree)));
}

void CompressionEngine::roomAgain(qint64 id)
{
    if (m_folders.contains(id))
        m_worker->scan(id, QByteArray(), true);
}
