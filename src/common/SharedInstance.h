#pragma once

#include <QMutexLocker>
#include <QRecursiveMutex>

// The one way our process-wide objects are made: under a lock, the first allocation becomes
// the shared instance and every later one yields null. Each class keeps its own slot and lock
// in its own source file, so a singleton exists once per process whichever library asks.
namespace SharedInstance {

template <class T, class Make>
T *allocate(T *&slot, QRecursiveMutex &lock, Make make)
{
    QMutexLocker locker(&lock);
    if (slot)
        return nullptr;
    slot = make();
    return slot;
}

template <class T, class Create>
T *shared(T *&slot, QRecursiveMutex &lock, Create create)
{
    QMutexLocker locker(&lock);
    if (!slot)
        create();
    return slot;
}

} // namespace SharedInstance
