#pragma once

#include <QProcess>
#include <QRandomGenerator>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>

// What the helper's benchmarks share: a private home and session bus for the helper they start,
// and btrfs images mounted on loop devices for it to work on. Make it before the
// QCoreApplication, so that everything made after it sees the private environment; it unmounts
// and ends the bus when it goes.
class BenchSession
{
public:
    // name: the benchmark's, for its messages.
    explicit BenchSession(const char *name);
    ~BenchSession();
    BenchSession(const BenchSession &) = delete;
    BenchSession &operator=(const BenchSession &) = delete;

    // False, after saying why on standard output, when the machine cannot run the benchmark
    // (not root, no session bus); the benchmark then ends with 0 as skipped.
    bool isReady() const { return m_ready; }

    QString root() const { return m_work.path(); }
    QString store() const; // the helper's history.db
    QString log() const; // the helper's log file

    // Makes an image of size bytes below root, with btrfs, and mounts it on mountPoint (made
    // here); false, saying so, when that cannot be done.
    bool mountBtrfs(const QString &image, const QString &mountPoint, qint64 size);
    // Unmounts what mountBtrfs mounted there, if anything.
    void unmount(const QString &mountPoint);

    // Runs program to its end; false, with its standard error, unless it exits with 0.
    static bool run(const QString &program, const QStringList &arguments, QByteArray *output = nullptr);
    // Runs the event loop until done() holds, asking every pollMs; false after timeoutMs.
    static bool waitFor(const std::function<bool()> &done, int timeoutMs, int pollMs = 10);
    // The fastest of three runs, in seconds, or -1 when one failed.
    static double bestOfThree(const QString &program, const QStringList &arguments, QByteArray *output = nullptr);
    // Status and, when asked, savings of the folder's record in store, read as the pane reads them.
    static bool record(const QString &store, const QString &folder, int *status, qint64 *savings = nullptr);
    // size bytes of text of a few words, compressible as prose and source code are.
    static QByteArray text(qint64 size, QRandomGenerator &random);
    // Writes everything out and empties the page cache, so what comes next reads from disk.
    static void dropCaches();
    // "Disk Usage" and "Uncompressed" of compsize's TOTAL line for dir, in bytes.
    static bool compsize(const QString &dir, qint64 *disk, qint64 *uncompressed);
    // files small text files of 2 to 8 KB below dir, kFilesPerFolder to a folder, ten folders to
    // a parent; synced.
    static constexpr int kFilesPerFolder = 100;
    static void makeTree(const QString &dir, int files);

private:
    const char *m_name;
    QTemporaryDir m_work;
    QProcess m_bus;
    QStringList m_mounts;
    bool m_ready = false;
};
