#include "helper/Rewriter.h"

#include "helper/BtrfsCompressor.h"

#include <QElapsedTimer>

#include <cerrno>

Rewriter::Rewriter(QObject *parent)
    : QObject(parent)
    , m_rest(this) // moves to the thread with its owner
{
    m_rest.setSingleShot(true);
    connect(&m_rest, &QTimer::timeout, this, &Rewriter::step);
}

void Rewriter::rewrite(const FilePlanPtr &plan)
{
    m_queue.push_back(plan);
    if (!m_rest.isActive())
        schedule(0);
}

void Rewriter::cancel(qint64 id)
{
    for (auto it = m_queue.begin(); it != m_queue.end();) {
        if ((*it)->tag().id != id) {
            ++it;
            continue;
        }
        (*it)->result = FilePlan::Result::Cancelled;
        Q_EMIT rewritten(*it);
        it = m_queue.erase(it);
    }
    if (m_current && m_current->tag().id == id)
        finish(FilePlan::Result::Cancelled);
}

void Rewriter::setPace(const Pacer::Pace &pace)
{
    // Held, or resting longer than the new pace asks: on at once.
    const bool sooner = pace.go && (!m_pace.go || pace.duty > m_pace.duty);
    m_pace = pace;
    if (sooner)
        schedule(0);
}

void Rewriter::schedule(int ms)
{
    m_rest.start(ms);
}

void Rewriter::finish(FilePlan::Result result, int error)
{
    BtrfsCompressor::releaseLease(m_current->fd());
    m_current->result = result;
    m_current->resultError = error;
    Q_EMIT rewritten(std::exchange(m_current, {}));
}

void Rewriter::step()
{
    if (!m_pace.go)
        return; // held: setPace() goes on
    if (!m_current) {
        if (m_queue.empty())
            return;
        m_current = m_queue.front();
        m_queue.pop_front();
        m_range = 0;
        m_offset = 0;
        if (const BtrfsCompressor::Result lease = BtrfsCompressor::takeLease(m_current->fd());
            lease != BtrfsCompressor::Result::Compressed) {
            const int error = errno;
            m_current->result =
                lease == BtrfsCompressor::Result::InUse ? FilePlan::Result::InUse : FilePlan::Result::Failed;
            m_current->resultError = error;
            Q_EMIT rewritten(std::exchange(m_current, {}));
            schedule(0);
            return;
        }
        if (!m_current->unwritten().isEmpty())
            BtrfsCompressor::setCompressionProperty(m_current->fd());
    }
    if (!BtrfsCompressor::holdsLease(m_current->fd())) {
        finish(FilePlan::Result::InUse);
        schedule(0);
        return;
    }
    const ExtentMap::Range &range = m_current->ranges().at(m_range);
    QElapsedTimer clock;
    clock.start();
    qint64 done = 0;
    const ExtentMap::Range piece{range.start + m_offset, qMin(m_pace.stepBytes, range.length - m_offset)};
    // Data still in memory is compressed as it is written out; what is on disk is rewritten.
    const qint64 unwritten = ExtentMap::overlap(piece, m_current->unwritten());
    BtrfsCompressor::Result result = BtrfsCompressor::Result::Compressed;
    if (unwritten > 0)
        result = BtrfsCompressor::writeOutPiece(m_current->fd(), piece.start, piece.length, &done);
    if (unwritten < piece.length && result == BtrfsCompressor::Result::Compressed)
        result = BtrfsCompressor::compressPiece(m_current->fd(), piece.start, piece.length, &done);
    const int error = errno;
    const qint64 tookMs = clock.elapsed();
    m_offset += done;
    if (m_offset >= range.length) {
        ++m_range;
        m_offset = 0;
    }
    if (result == BtrfsCompressor::Result::NoSpace)
        finish(FilePlan::Result::NoSpace);
    else if (result == BtrfsCompressor::Result::Failed)
        finish(FilePlan::Result::Failed, error);
    else if (m_range >= m_current->ranges().size())
        finish(FilePlan::Result::Rewritten);
    schedule(m_pace.restMs(tookMs));
}
