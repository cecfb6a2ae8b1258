#pragma once

#include "btrfs/CompressionModel.h"
#include "helper/FilePlan.h"
#include "helper/Pacer.h"

#include <QObject>
#include <QTimer>

#include <deque>

// One of the helper's file compressors, each a thread of its own at idle priority. It takes
// one file at a time the whole way: works out what zstd would save in each chunk, hands btrfs
// the ranges worth rewriting in pieces as big and as often as the pace allows (resting between
// them so that btrfs's workers leave the processors to others), and reads back what btrfs
// stored. It holds a read lease on the file meanwhile and gives way to any writer. Several side
// by side keep every processor busy on a quiet machine: while btrfs compresses one's file, the
// next estimates its own. Told what to do by queued calls; it hands each plan back by signal.
class FileCompressor : public QObject
{
    Q_OBJECT
public:
    // How long one slice of an estimate holds the thread.
    static constexpr qint64 kSliceMs = 20;

    explicit FileCompressor(QObject *parent = nullptr);

    // Queued calls, on the compressor's thread.
    void start();
    // With estimateOnly the plan comes back once estimated (a nearly full disk plans a whole
    // folder before it rewrites anything, the files that free most first).
    void take(const FilePlanPtr &plan, bool estimateOnly);
    // Plans of the folder come back as cancelled, the one in hand after its current piece.
    void cancel(qint64 id);
    void setPace(const Pacer::Pace &pace);

Q_SIGNALS:
    void handed(const FilePlanPtr &plan);

private:
    struct Task {
        FilePlanPtr plan;
        bool estimateOnly = false;
    };
    void step();
    void schedule(int ms);
    bool rewriteStep();
    // Ends the plan in hand with result, reading back what btrfs stored when it was rewritten.
    void finish(FilePlan::Result result, int error = 0);

    Pacer::Pace m_pace;
    std::deque<Task> m_queue;
    Task m_current;
    bool m_leased = false;
    qsizetype m_range = 0; // in the plan in hand
    qint64 m_offset = 0; // in that range
    CompressionModel m_model;
    QTimer m_rest;
};
