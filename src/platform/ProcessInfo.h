#pragma once

#include <QObject>

#include "platform/VantorPlatformExport.h"

class QSocketNotifier;

// Process information: identifier, and sudden termination. While sudden termination is
// disabled (the counter is above zero) a SIGTERM or SIGINT does not end the process at once:
// the quit waits until every holder has enabled it again.
class VANTOR_PLATFORM_EXPORT ProcessInfo : public QObject
{
    Q_OBJECT
public:
    static ProcessInfo *processInfo();

    int processIdentifier() const;
    // The running executable's path, as the kernel knows it; empty when it cannot be read.
    QString executablePath() const;
    // This process's arguments as the kernel holds them: each ends with a NUL byte.
    QByteArray argumentsData() const;

    void disableSuddenTermination();
    void enableSuddenTermination();
    int suddenTerminationDisableCount() const { return m_disableCount; }

    // Routes SIGTERM and SIGINT through the event loop (a self-pipe: D-Bus runs its own
    // thread, so blocking the signals in one thread would not be enough). Needs a
    // QCoreApplication; safe to call more than once.
    void installTerminationHandler();

    // Writing to a pipe whose reader has gone fails instead of ending the process.
    static void ignoreBrokenPipes();

    bool terminationPending() const { return m_terminationPending; }

Q_SIGNALS:
    // A termination request arrived; when it has been allowed to proceed the application quits.
    void terminationRequested(int signal);

private:
    ProcessInfo();
    void onSignalReadable();
    void terminateNow();

    int m_disableCount = 0;
    bool m_terminationPending = false;
    QSocketNotifier *m_notifier = nullptr;
};

// Holds sudden termination disabled for the lifetime of a scope.
class SuddenTerminationGuard
{
public:
    SuddenTerminationGuard() { ProcessInfo::processInfo()->disableSuddenTermination(); }
    ~SuddenTerminationGuard() { ProcessInfo::processInfo()->enableSuddenTermination(); }
    SuddenTerminationGuard(const SuddenTerminationGuard &) = delete;
    SuddenTerminationGuard &operator=(const SuddenTerminationGuard &) = delete;
};
