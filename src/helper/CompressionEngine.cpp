#include "helper/CompressionEngine.h"

#include "common/VTUtil.h"
#include "helper/BtrfsCompressor.h"
#include "helper/CompressionWorker.h"
#include "helper/DesktopNotifier.h"
#include "helper/FreeSpaceGuard.h"
#include "helper/SavingsModel.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

CompressionEngine::CompressionEngine(SavingsModel *savings, DesktopNotifier *notifier, QObject *parent)
    : QObject(parent)
    , m_savings(savings)
    , m_notifier(notifier)
    , m_worker(new CompressionWorker(this))
    , m_space(new FreeSpaceGuard(this))
{
    connect(m_worker, &CompressionWorker::progress, this, &CompressionEngine::progress);
    connect(m_worker, &CompressionWorker::finished, this, &CompressionEngine::finished);
    connect(m_worker, &CompressionWorker::failed, this, &CompressionEngine::failed);
    connect(m_worker, &CompressionWorker::sharedLeft, this, &CompressionEngine::sharedLeft);
    connect(m_worker, &CompressionWorker::waitingForSpace, this, &CompressionEngine::waitingForSpace);
    connect(m_space, &FreeSpaceGuard::roomAgain, this, &CompressionEngine::roomAgain);
    // Ids of the old file mean nothing in the new one.
    connect(m_savings, &SavingsModel::storeReopened, m_worker, &CompressionWorker::cancelAll);
    connect(m_savings, &SavingsModel::recordVanished, m_worker, &CompressionWorker::cancel);
    m_worker->start();
}

CompressionEngine::~CompressionEngine()
{
    stop();
}

void CompressionEngine::stop()
{
    m_worker->stop();
    m_savings->flush();
}

void CompressionEngine::resume()
{
    for (const HistoryRecord &record : m_savings->records(HistoryContext::Predicate::Enabled)) {
        if (record.status < 100)
            addFolder(record.objectID, record.folder);
    }
}

void CompressionEngine::addFolder(qint64 id, const QString &folder)
{
    m_removed.remove(id);
    const QByteArray path = QFile::encodeName(folder);
    const int fd = ::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        failed(id, QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    const bool btrfs = BtrfsCompressor::isBtrfs(fd);
    ::close(fd);
    if (btrfs) {
        m_folders.insert(id, path);
        m_worker->enqueue(id, path);
        return;
    }
    // Nothing to do and nothing saved: the folder is done, and the user learns why.
    const QString fileSystem = BtrfsCompressor::fileSystemName(path);
    m_savings->setProgress(id, 100, 0);
    m_savings->flush();
    m_notifier->notify(QStringLiteral("Vantor cannot compress \"%1\"").arg(folder),
                       QStringLiteral("The folder %1 is on %2, a file system without transparent compression. "
                                      "Vantor compresses folders on btrfs only; nothing in this folder was changed.")
                           .arg(folder, fileSystem));
}

void CompressionEngine::removeFolder(qint64 id)
{
    m_removed.insert(id);
    m_space->forget(id);
    m_toldWaiting.remove(id);
    m_worker->cancel(id);
}

void CompressionEngine::setActive(bool active)
{
    m_worker->setActive(active);
}

void CompressionEngine::progress(qint64 id, quint32 status, quint64 savings)
{
    if (!m_removed.contains(id))
        m_savings->setProgress(id, status, savings);
}

void CompressionEngine::finished(qint64 id, quint32 status, quint64 savings)
{
    if (m_removed.contains(id))
        return;
    m_toldWaiting.remove(id);
    m_savings->setProgress(id, status, savings);
    m_savings->flush();
}

void CompressionEngine::failed(qint64 id, const QString &reason)
{
    qWarning("VantorHelper: cannot compress folder record %lld: %s", static_cast<long long>(id), qPrintable(reason));
}

void CompressionEngine::tell(const QString &summary, const QString &body)
{
    qInfo("VantorHelper: %s", qPrintable(body));
    m_notifier->notify(summary, body);
}

void CompressionEngine::sharedLeft(qint64 id, quint64 bytes)
{
    if (m_removed.contains(id) || m_toldShared.contains(id))
        return;
    m_toldShared.insert(id);
    tell(QStringLiteral("Shared data left as it is"),
         QStringLiteral("%1 in %2 is shared with snapshots or copies and was left as it is: "
                        "compressing it now would take more space until those are deleted")
             .arg(VTUtil::getPrettySize(bytes), QFileInfo(QFile::decodeName(m_folders.value(id))).fileName()));
}

void CompressionEngine::waitingForSpace(qint64 id, quint32 status, quint64 savings, quint64 bytesToFree)
{
    if (m_removed.contains(id))
        return;
    m_savings->setProgress(id, status, savings);
    m_savings->flush();
    m_space->wait(id, m_folders.value(id));
    if (m_toldWaiting.contains(id))
        return;
    m_toldWaiting.insert(id);
    tell(QStringLiteral("Vantor is waiting for disk space"),
         QStringLiteral("%1 waits to be compressed: its disk is nearly full. "
                        "Free %2 on it and Vantor goes on by itself.")
             .arg(QFileInfo(QFile::decodeName(m_folders.value(id))).fileName(), VTUtil::getPrettySize(bytesToFree)));
}

void CompressionEngine::roomAgain(qint64 id)
{
    if (!m_removed.contains(id) && m_folders.contains(id))
        m_worker->enqueue(id, m_folders.value(id));
}
