#include "helper/FileCompressor.h"

#include "helper/BtrfsCompressor.h"

#include <QElapsedTimer>

#include <cerrno>

FileCompressor::FileCompressor(QObject *parent)
    : QObject(parent)
    , m_rest(this) // moves to the thread with its owner
{
    m_rest.setSingleShot(true);
    connect(&m_rest, &QTimer::timeout, this, &FileCompressor::step);
}

void FileCompressor::start()
{
    BtrfsCompressor::lowerThreadPriority();
}

void FileCompressor::take(const FilePlanPtr &plan, bool estimateOnly)
{
    m_queue.push_back({plan, estimateOnly});
    if (!m_rest.isActive())
        schedule(0);
}

void FileCompressor::cancel(qint64 id)
{
    for (auto it = m_queue.begin(); it != m_queue.end();) {
        if (it->plan->tag().id != id) {
            ++it;
            continue;
        }
        it->plan->result = FilePlan::Result::Cancelled;
        Q_EMIT handed(it->plan);
        it = m_queue.erase(it);
    }
    if (m_current.plan && m_current.plan->tag().id == id)
        finish(FilePlan::Result::Cancelled);
}

void FileCompressor::setPace(const Pacer::Pace &pace)
{
    // Held, or resting longer than the new pace asks: on at once.
    const bool sooner = pace.go && (!m_pace.go || pace.duty > m_pace.duty);
    m_pace = pace;
    // Held maybe for hours: a writer must not wait for the lease meanwhile. It is taken again
    // before the next piece.
    if (!pace.go && m_leased) {
        BtrfsCompressor::releaseLease(m_current.plan->fd());
        m_leased = false;
    }
    if (sooner)
        schedule(0);
}

void FileCompressor::schedule(int ms)
{
    m_rest.start(ms);
}

void FileCompressor::step()
{
    if (!m_pace.go)
        return; // held: nothing is read or rewritten; setPace() goes on
    if (!m_current.plan) {
        if (m_queue.empty())
            return;
        m_current = m_queue.front();
        m_queue.pop_front();
        m_leased = false;
        m_range = 0;
        m_offset = 0;
    }
    FilePlan &plan = *m_current.plan;
    if (!plan.isEstimated()) {
        // A big file is estimated in slices, so a cancel or a new pace is heard meanwhile.
        if (plan.estimate(m_model, kSliceMs) && (m_current.estimateOnly || plan.ranges().isEmpty()))
            finish(FilePlan::Result::Pending);
        schedule(0);
        return;
    }
    QElapsedTimer clock;
    clock.start();
    const bool more = rewriteStep();
    schedule(more ? m_pace.restMs(clock.elapsed()) : 0);
}

bool FileCompressor::rewriteStep()
{
    FilePlan &plan = *m_current.plan;
    if (!m_leased) {
        if (const BtrfsCompressor::Result lease = BtrfsCompressor::takeLease(plan.fd());
            lease != BtrfsCompressor::Result::Compressed) {
            finish(lease == BtrfsCompressor::Result::InUse ? FilePlan::Result::InUse : FilePlan::Result::Failed, errno);
            return false;
        }
        m_leased = true;
        // Written to before the lease, or while it was let go for a pause: the estimate no
        // longer holds.
        if (plan.changedSinceOpened()) {
            finish(FilePlan::Result::InUse);
            return false;
        }
        if (m_range == 0 && m_offset == 0 && !plan.unwritten().isEmpty())
            BtrfsCompressor::setCompressionProperty(plan.fd());
    }
    if (!BtrfsCompressor::holdsLease(plan.fd())) {
        finish(FilePlan::Result::InUse);
        return false;
    }
    const ExtentMap::Range &range = plan.ranges().at(m_range);
    const ExtentMap::Range piece{range.start + m_offset, qMin(m_pace.stepBytes, range.length - m_offset)};
    qint64 done = 0;
    // Data still in memory is compressed as it is written out; what is on disk is rewritten.
    const qint64 unwritten = ExtentMap::overlap(piece, plan.unwritten());
    BtrfsCompressor::Result result = BtrfsCompressor::Result::Compressed;
    if (unwritten > 0)
        result = BtrfsCompressor::writeOutPiece(plan.fd(), piece.start, piece.length, &done);
    if (unwritten < piece.length && result == BtrfsCompressor::Result::Compressed)
        result = BtrfsCompressor::compressPiece(plan.fd(), piece.start, piece.length, &done);
    const int error = errno;
    // Paced, the rest is measured from the kernel's whole work on the piece.
    if (m_pace.duty < 1.0 && done > 0)
        BtrfsCompressor::waitWrittenOut(plan.fd());
    m_offset += done;
    if (m_offset >= range.length) {
        ++m_range;
        m_offset = 0;
    }
    if (result == BtrfsCompressor::Result::NoSpace)
        finish(FilePlan::Result::NoSpace);
    else if (result == BtrfsCompressor::Result::Failed)
        finish(FilePlan::Result::Failed, error);
    else if (m_range >= plan.ranges().size())
        finish(FilePlan::Result::Rewritten);
    return true;
}

void FileCompressor::finish(FilePlan::Result result, int error)
{
    FilePlanPtr plan = std::exchange(m_current.plan, {});
    if (m_leased)
        BtrfsCompressor::releaseLease(plan->fd());
    m_leased = false;
    plan->result = result;
    plan->resultError = error;
    // Read back here, while the data is fresh in this thread's hands; a plan that cannot be
    // read back counts as not rewritten.
    if (result == FilePlan::Result::Rewritten && !plan->verify(m_model)) {
        plan->result = FilePlan::Result::Failed;
        plan->resultError = errno;
    }
    Q_EMIT handed(plan);
}
