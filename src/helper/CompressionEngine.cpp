#include "helper/CompressionEngine.h"

#include "common/BDAlias.h"
#include "common/VTUtil.h"
#include "helper/BtrfsCompressor.h"
#include "helper/CompressionWorker.h"
#include "helper/DesktopNotifier.h"
#include "helper/FolderWatch.h"
#include "helper/FreeSpaceGuard.h"
#include "helper/HelperLog.h"
#include "helper/LoadSampler.h"
#include "helper/RescanSchedule.h"
#include "helper/FileCompressor.h"
#include "helper/SavingsModel.h"
#include "helper/WatchedFolder.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

CompressionEngine::CompressionEngine(SavingsModel *savings, DesktopNotifier *notifier, FolderWatch *watch,
                                     QObject *parent)
    : QObject(parent)
    , m_savings(savings)
    , m_notifier(notifier)
    , m_watch(watch)
    , m_worker(nullptr)
    , m_rescan(
          new RescanSchedule([this] { return hasWork(); }, RescanSchedule::kIntervalMs, RescanSchedule::kDeferMs, this))
    , m_pacer(int(std::max(1u, std::thread::hardware_concurrency())))
{
    qRegisterMetaType<JobTag>();
    qRegisterMetaType<WalkEnd>();
    qRegisterMetaType<JobEnd>();
    qRegisterMetaType<FilePlanPtr>();
    qRegisterMetaType<QList<SeenFolder>>();
    qRegisterMetaType<QList<FileDone>>();
    // One file compressor per processor: on a quiet machine all work side by side.
    for (int i = 0; i < m_pacer.processors(); ++i) {
        auto thread = std::make_unique<QThread>();
        auto *compressor = new FileCompressor;
        compressor->moveToThread(thread.get());
        thread->start();
        QMetaObject::invokeMethod(compressor, &FileCompressor::start, Qt::QueuedConnection);
        m_compressors.append(compressor);
        m_compressorThreads.push_back(std::move(thread));
    }
    m_worker = new CompressionWorker(m_compressors);
    m_worker->moveToThread(&m_workerThread);
    for (FileCompressor *compressor : std::as_const(m_compressors))
        connect(compressor, &FileCompressor::handed, m_worker, &CompressionWorker::handed);
    connect(m_worker, &CompressionWorker::jobStarted, this, &CompressionEngine::jobStarted);
    connect(m_worker, &CompressionWorker::foldersSeen, this, &CompressionEngine::foldersSeen);
    connect(m_worker, &CompressionWorker::walked, this, &CompressionEngine::walked);
    connect(m_worker, &CompressionWorker::filesDone, this, &CompressionEngine::filesDone);
    connect(m_worker, &CompressionWorker::jobEnded, this, &CompressionEngine::jobEnded);
    m_workerThread.start();
    QMetaObject::invokeMethod(m_worker, &CompressionWorker::start, Qt::QueuedConnection);

    connect(m_watch, &FolderWatch::changed, this, &CompressionEngine::changed);
    connect(m_watch, &FolderWatch::folderMoved, this, &CompressionEngine::folderMoved);
    connect(m_watch, &FolderWatch::overflowed, this, &CompressionEngine::overflowed);
    // Ids of the old file mean nothing in the new one: the new one's listed folders are picked
    // up as at start-up, once the call that noticed the replacement is over.
    connect(m_savings, &SavingsModel::storeReopened, this, [this] {
        ++m_storesOpened;
        forgetAll();
        QMetaObject::invokeMethod(this, &CompressionEngine::resume, Qt::QueuedConnection);
    });
    connect(m_savings, &SavingsModel::recordVanished, this, &CompressionEngine::forget);
    // Changes the watch could not see (made while the helper was not looking, or past the
    // limits) are found by an occasional rescan, paced like all work; a timer hours apart.
    connect(m_rescan, &RescanSchedule::due, this, &CompressionEngine::rescanAll);
    m_sampler.setInterval(kSampleMs);
    // A coarse timer may fire a little early, and the first decision would then wait for the
    // next sample: a fifth of a second at sharing pace on a quiet machine.
    m_sampler.setTimerType(Qt::PreciseTimer);
    connect(&m_sampler, &QTimer::timeout, this, &CompressionEngine::sample);
    update();
}

CompressionEngine::~CompressionEngine()
{
    m_sampler.stop();
    // Each goes in its own thread, where its timers are.
    QMetaObject::invokeMethod(
        m_worker,
        [worker = m_worker] {
            worker->finish();
            delete worker;
        },
        Qt::BlockingQueuedConnection);
    m_workerThread.quit();
    m_workerThread.wait();
    for (qsizetype i = 0; i < m_compressors.size(); ++i) {
        QMetaObject::invokeMethod(
            m_compressors.at(i), [compressor = m_compressors.at(i)] { delete compressor; },
            Qt::BlockingQueuedConnection);
        m_compressorThreads.at(i)->quit();
        m_compressorThreads.at(i)->wait();
    }
    m_folders.clear();
    m_savings->flush();
}

void CompressionEngine::resume()
{
    const quint64 store = m_storesOpened;
    for (const HistoryRecord &record : m_savings->records(HistoryContext::Predicate::Enabled)) {
        QString folder = record.folder;
        if (!QFileInfo(folder).isDir()) {
            // Moved while the helper was not running: the alias record finds it.
            const std::unique_ptr<BDAlias> alias = BDAlias::aliasWithData(m_savings->folderAlias(record.objectID));
            const QString found = alias ? alias->fullPath() : QString();
            if (found.isEmpty() || found == folder || !QFileInfo(found).isDir())
                continue; // gone: listed by its recorded path
            // A store found replaced meanwhile is listed anew by a resume of its own.
            if (!m_savings->renameFolder(record.objectID, folder, found))
                continue;
            if (m_storesOpened != store)
                return;
            qCInfo(lcHelper, "\"%s\" was moved to \"%s\" while the helper was not running", qPrintable(folder),
                   qPrintable(found));
            folder = found;
        }
        add(record.objectID, folder, record.status >= 100);
        if (WatchedFolder *watched = find(record.objectID)) {
            watched->status = record.status;
            watched->savings = record.savings;
        }
    }
}

void CompressionEngine::addFolder(qint64 id, const QString &folder)
{
    add(id, folder, false);
}

void CompressionEngine::add(qint64 id, const QString &path, bool recordDone)
{
    // Listed again while watched, the folder is looked through anew, but what its user was told stands.
    QSet<FolderReport::Item> told;
    if (WatchedFolder *old = find(id))
        told = std::move(old->told);
    forget(id);
    const QByteArray encoded = QFile::encodeName(path);
    const int fd = ::open(encoded.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        qCWarning(lcHelper, "cannot compress \"%s\": %s", qPrintable(path), std::strerror(errno));
        return;
    }
    if (BtrfsCompressor::isBtrfs(fd)) {
        auto folder = std::make_unique<WatchedFolder>(JobTag{id, ++m_generations}, fd, path);
        WatchedFolder *watched = folder.get();
        watched->told = std::move(told);
        connect(&watched->settle, &SettleQueue::settled, this,
                [this, watched](const QByteArray &relative) { queueJob(watched, relative, false); });
        connect(&watched->roomCheck, &QTimer::timeout, this, [this, watched] { roomCheck(watched); });
        connect(&watched->limitedRescan, &QTimer::timeout, this, [this, watched] { queueJob(watched, {}, true); });
        m_folders[id] = std::move(folder);
        queueJob(watched, QByteArray(), true);
        return;
    }
    ::close(fd);
    // A record the store already has as done (at start-up) was settled, and its user told.
    if (recordDone)
        return;
    // Nothing to do and nothing saved: the folder is done, and the user learns why.
    m_savings->setProgress(id, 100, 0);
    m_savings->flush();
    m_notifier->notify(QStringLiteral("Vantor cannot compress \"%1\"").arg(path),
                       QStringLiteral("The folder %1 is on %2, a file system without transparent compression. "
                                      "Vantor compresses folders on btrfs only; nothing in this folder was changed.")
                           .arg(path, BtrfsCompressor::fileSystemName(encoded)));
}

void CompressionEngine::removeFolder(qint64 id)
{
    forget(id);
}

void CompressionEngine::forget(qint64 id)
{
    const auto it = m_folders.find(id);
    if (it == m_folders.end())
        return;
    m_folders.erase(it);
    m_watch->unwatchAll(id);
    QMetaObject::invokeMethod(
        m_worker, [worker = m_worker, id] { worker->cancel(id); }, Qt::QueuedConnection);
    update();
}

void CompressionEngine::forgetAll()
{
    while (!m_folders.empty())
        forget(m_folders.begin()->first);
}

WatchedFolder *CompressionEngine::find(qint64 id) const
{
    const auto it = m_folders.find(id);
    return it == m_folders.end() ? nullptr : it->second.get();
}

WatchedFolder *CompressionEngine::find(const JobTag &tag) const
{
    WatchedFolder *folder = find(tag.id);
    return folder && folder->tag.generation == tag.generation ? folder : nullptr;
}

void CompressionEngine::setSwitchedOn(bool on)
{
    m_pacer.setSwitchedOn(on);
    update();
}

void CompressionEngine::setPower(bool onBattery, bool powerSaver)
{
    m_pacer.setPower(onBattery, powerSaver);
    update();
}

void CompressionEngine::queueJob(WatchedFolder *folder, const QByteArray &relative, bool whole)
{
    const int fd = ::fcntl(folder->fd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0)
        return;
    ++folder->jobs;
    const FolderJob job{folder->tag, fd, relative, whole};
    QMetaObject::invokeMethod(
        m_worker, [worker = m_worker, job] { worker->enqueue(job); }, Qt::QueuedConnection);
    update();
}

void CompressionEngine::rescanAll()
{
    for (const auto &[id, folder] : m_folders)
        queueJob(folder.get(), QByteArray(), true);
}

void CompressionEngine::watch(WatchedFolder *folder, const QByteArray &relative)
{
    if (m_watch->isWatched(folder->tag.id, relative))
        return;
    // Through the watched folder: its path may have changed meanwhile.
    const int fd = ::openat(folder->fd, relative.isEmpty() ? "." : relative.constData(),
                            O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return;
    const FolderWatch::Result result = m_watch->watch(folder->tag.id, relative, fd);
    ::close(fd);
    if (result == FolderWatch::Result::LimitReached)
        watchLimitReached(folder);
}

void CompressionEngine::watchLimitReached(WatchedFolder *folder)
{
    if (std::exchange(folder->toldLimit, true))
        return;
    qCWarning(lcHelper,
              "the watch limit is reached at %lld watches (fs.inotify.max_user_watches = %d); \"%s\" is "
              "rescanned every %d minutes instead of followed",
              static_cast<long long>(m_watch->count()), FolderWatch::limit(), qPrintable(folder->path),
              kLimitedRescanMs / 60000);
    folder->limitedRescan.start(kLimitedRescanMs);
}

void CompressionEngine::jobStarted(const JobTag &tag, const QByteArray &relative, bool whole)
{
    WatchedFolder *folder = find(tag);
    if (!folder)
        return;
    ++folder->walking;
    // A whole walk finds everything below anew; a folder gone meanwhile takes its savings along.
    if (whole)
        folder->tally.dropBelow(relative);
    folder->wholePass = whole && relative.isEmpty();
    folder->files = 0;
    folder->filesDone = 0;
}

void CompressionEngine::foldersSeen(const JobTag &tag, const QList<SeenFolder> &folders)
{
    WatchedFolder *folder = find(tag);
    if (!folder)
        return;
    for (const SeenFolder &seen : folders) {
        folder->tally.set(seen.relative, seen.known);
        watch(folder, seen.relative);
        if (seen.alone)
            listed(folder, seen);
    }
}

void CompressionEngine::listed(WatchedFolder *folder, const SeenFolder &seen)
{
    // Folders that went away take their savings with them; new ones are walked whole.
    QSet<QByteArray> present;
    for (const QByteArray &name : seen.subfolders) {
        const QByteArray path = seen.relative.isEmpty() ? name : seen.relative + '/' + name;
        present.insert(path);
        if (!m_watch->isWatched(folder->tag.id, path) || !folder->tally.contains(path))
            queueJob(folder, path, true);
    }
    for (const QByteArray &path : folder->tally.subfoldersOf(seen.relative)) {
        if (!present.contains(path)) {
            folder->tally.dropBelow(path);
            folder->told.removeIf(
                [&path](const FolderReport::Item &item) { return SavingsTally::isBelow(item.relative, path); });
            m_watch->unwatch(folder->tag.id, path);
        }
    }
}

void CompressionEngine::walked(const JobTag &tag, const WalkEnd &end)
{
    WatchedFolder *folder = find(tag);
    if (!folder)
        return;
    --folder->walking;
    // The folder itself has gone; its parent's next look drops it, or it is the watched one.
    if (!end.found)
        folder->tally.dropBelow(end.relative);
    // Files handled while the walk went on are counted already; those it knew from the cache now.
    folder->files = end.files;
    folder->filesDone += end.files - end.todo;
    for (auto it = end.unsettled.cbegin(); it != end.unsettled.cend(); ++it)
        folder->settle.add(it.key(), it.value());
    record(folder, false);
}

void CompressionEngine::filesDone(const JobTag &tag, const QList<FileDone> &files)
{
    WatchedFolder *folder = find(tag);
    if (!folder)
        return;
    for (const FileDone &file : files)
        folder->tally.add(file.folder, file.figures);
    folder->filesDone += files.size();
    record(folder, false);
}

void CompressionEngine::jobEnded(const JobTag &tag, const JobEnd &end)
{
    WatchedFolder *folder = find(tag);
    if (!folder)
        return;
    --folder->jobs;
    if (end.merged) {
        update();
        return;
    }
    end.report.tell(folder->told, end.bytesToFree > 0);
    folder->sharedFound = folder->sharedFound || end.sharedFound;
    if (end.bytesToFree > 0) {
        folder->roomCheck.start(FreeSpaceGuard::kPollMs);
        if (!std::exchange(folder->toldWaiting, true))
            tell(QStringLiteral("Vantor is waiting for disk space"),
                 QStringLiteral("%1 waits to be compressed: its disk is nearly full. "
                                "Free %2 on it and Vantor goes on by itself.")
                     .arg(QFileInfo(folder->path).fileName(), VTUtil::getPrettySize(quint64(end.bytesToFree))));
    } else if (std::exchange(folder->wholePass, false)) {
        folder->seenWhole = true;
    }
    // Writing the record may find the store replaced and forget every folder: it comes last.
    if (!folder->hasWork())
        folderDone(folder);
    else
        record(folder, end.bytesToFree > 0);
    update();
}

void CompressionEngine::folderDone(WatchedFolder *folder)
{
    folder->toldWaiting = false;
    // Told once the whole folder is known, with its whole figure; a rescan that finds only
    // what was told before says nothing.
    if (std::exchange(folder->sharedFound, false) && folder->tally.sharedPlain() > 0
        && !std::exchange(folder->toldShared, true))
        tell(QStringLiteral("Shared data left as it is"),
             QStringLiteral("%1 in %2 is shared with snapshots or copies and was left as it is: "
                            "compressing it now would take more space until those are deleted")
                 .arg(VTUtil::getPrettySize(folder->tally.sharedPlain()), QFileInfo(folder->path).fileName()));
    // Files not met since the start leave the cache once every folder has been seen whole.
    if (!m_cachePruned && std::all_of(m_folders.cbegin(), m_folders.cend(), [](const auto &entry) {
            return entry.second->seenWhole;
        })) {
        m_cachePruned = true;
        QMetaObject::invokeMethod(
            m_worker, [worker = m_worker] { worker->saveCache(true); }, Qt::QueuedConnection);
    }
    record(folder, true);
}

// With flush, the store is written at once, which may forget folder (its record vanished, or
// the store was replaced): nothing may use it after.
void CompressionEngine::record(WatchedFolder *folder, bool flush)
{
    folder->status = folder->currentStatus();
    // While a walk rebuilds the figures, the last ones written stand.
    if (folder->walking == 0)
        folder->savings = folder->tally.savings();
    m_savings->setProgress(folder->tag.id, folder->status, folder->savings);
    if (flush)
        m_savings->flush();
}

void CompressionEngine::changed(qint64 id, const QByteArray &relative)
{
    WatchedFolder *folder = find(id);
    if (!folder)
        return;
    folder->settle.add(relative);
    if (folder->status >= 100)
        record(folder, false);
}

void CompressionEngine::overflowed()
{
    qCWarning(lcHelper,
              "changes came faster than they could be read and some were lost; "
              "every watched folder is rescanned");
    rescanAll();
    // Work waits for every folder now.
    for (const auto &[id, folder] : m_folders)
        record(folder.get(), false);
}

void CompressionEngine::roomCheck(WatchedFolder *folder)
{
    if (FreeSpaceGuard::room(folder->fd) < FreeSpaceGuard::kMinRoom)
        return;
    folder->roomCheck.stop();
    queueJob(folder, QByteArray(), true);
}

void CompressionEngine::folderMoved(qint64 id)
{
    WatchedFolder *folder = find(id);
    if (!folder)
        return;
    char buffer[PATH_MAX];
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(folder->fd);
    const ssize_t size = ::readlink(link.constData(), buffer, sizeof buffer);
    if (size <= 0)
        return;
    const QString path = QFile::decodeName(QByteArray(buffer, size));
    const QString old = folder->path;
    if (path.endsWith(QLatin1String(" (deleted)"))) {
        // Removed, or moved to another file system (a copy, then removal): listed by its recorded path.
        qCWarning(lcHelper, "\"%s\" is gone; it stays listed until it is removed", qPrintable(old));
        forget(id);
        return;
    }
    // Recording the move may find the store replaced, which forgets every folder: look again.
    if (path == old || !m_savings->renameFolder(id, old, path))
        return;
    qCInfo(lcHelper, "\"%s\" was moved to \"%s\"", qPrintable(old), qPrintable(path));
    if (WatchedFolder *moved = find(id))
        moved->path = path;
}

void CompressionEngine::tell(const QString &summary, const QString &body)
{
    qCInfo(lcHelper, "%s", qPrintable(body));
    m_notifier->notify(summary, body);
}

bool CompressionEngine::hasWork() const
{
    return std::any_of(m_folders.cbegin(), m_folders.cend(), [](const auto &entry) { return entry.second->hasWork(); });
}

void CompressionEngine::sample()
{
    if (m_pacer.sample(LoadSampler::take()))
        update();
}

void CompressionEngine::update()
{
    const bool work =
        std::any_of(m_folders.cbegin(), m_folders.cend(), [](const auto &entry) { return entry.second->jobs > 0; });
    // The machine is read only while there is work it could hold up: nothing is polled otherwise.
    // Samples from before a time without work or while held say nothing of now.
    const bool sampling = work && m_pacer.hold() == Pacer::Hold::None;
    if (sampling && !m_sampler.isActive()) {
        m_pacer.restart();
        m_pacer.sample(LoadSampler::take());
        m_sampler.start();
    } else if (!sampling) {
        m_sampler.stop();
    }
    const Pacer::Pace pace = m_pacer.pace();
    if (!(pace == m_pace)) {
        m_pace = pace;
        QMetaObject::invokeMethod(
            m_worker, [worker = m_worker, pace] { worker->setPace(pace); }, Qt::QueuedConnection);
        for (FileCompressor *compressor : std::as_const(m_compressors))
            QMetaObject::invokeMethod(
                compressor, [compressor, pace] { compressor->setPace(pace); }, Qt::QueuedConnection);
    }

    Status status;
    if (m_pacer.hold() == Pacer::Hold::SwitchedOff) {
        status = {Activity::Waiting, Reason::SwitchedOff};
    } else if (hasWork()) {
        const bool onlyRoom = std::all_of(m_folders.cbegin(), m_folders.cend(), [](const auto &entry) {
            return !entry.second->hasWork() || entry.second->isWaitingForRoom();
        });
        if (m_pacer.hold() == Pacer::Hold::Battery)
            status = {Activity::Waiting, Reason::Battery};
        else if (m_pacer.hold() == Pacer::Hold::PowerSaver)
            status = {Activity::Waiting, Reason::PowerSaver};
        else if (onlyRoom)
            status = {Activity::Waiting, Reason::DiskSpace};
        else if (m_pacer.isMachineBusy())
            status = {Activity::Waiting, Reason::BusyMachine};
        else
            status = {Activity::Working, Reason::None};
    }
    if (status == m_status)
        return;
    m_status = status;
    qCInfo(lcHelper, "%s", qPrintable(describe(status)));
    Q_EMIT statusChanged();
}

QString CompressionEngine::describe(const Status &status)
{
    switch (status.activity) {
    case Activity::Idle:
        return QStringLiteral("idle: every folder is done");
    case Activity::Working:
        return QStringLiteral("working");
    case Activity::Waiting:
        break;
    }
    static const char *const why[] = {
        "", "switched off", "on battery power", "power saver mode", "the machine is busy", "too little free space"};
    return QStringLiteral("waiting: %1").arg(QLatin1String(why[int(status.reason)]));
}

QString CompressionEngine::activityCode(Activity activity)
{
    static const char *const codes[] = {"idle", "working", "waiting"};
    return QLatin1String(codes[int(activity)]);
}

QString CompressionEngine::reasonCode(Reason reason)
{
    static const char *const codes[] = {"", "switched off", "battery", "power saver", "busy machine", "disk space"};
    return QLatin1String(codes[int(reason)]);
}
