#pragma once

#include "helper/FilePlan.h"
#include "helper/Pacer.h"

#include <QObject>
#include <QTimer>

#include <deque>

// The thread that hands work to the kernel: it rewrites each planned file's ranges
// compressed, one piece at a time, as big and as often as the pace allows, resting between
// pieces so that btrfs's workers leave the processors to others. It holds a read lease on the
// file meanwhile and gives way to any writer. Told what to do by queued calls; it hands each
// plan back, with its result, by signal.
class Rewriter : public QObject
{
    Q_OBJECT
public:
    explicit Rewriter(QObject *parent = nullptr);

    void rewrite(const FilePlanPtr &plan);
    // Plans of the folder come back as cancelled, the one in hand after its current piece.
    void cancel(qint64 id);
    void setPace(const Pacer::Pace &pace);

Q_SIGNALS:
    void rewritten(const FilePlanPtr &plan);

private:
    void step();
    void schedule(int ms);
    // Ends the plan in hand with result.
    void finish(FilePlan::Result result, int error = 0);

    Pacer::Pace m_pace;
    std::deque<FilePlanPtr> m_queue;
    FilePlanPtr m_current;
    qsizetype m_range = 0; // in the plan in hand
    qint64 m_offset = 0; // in that range
    QTimer m_rest;
};
