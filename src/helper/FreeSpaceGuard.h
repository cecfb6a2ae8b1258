#pragma once

#include <QtGlobal>

// How much room a rewrite may take on a nearly full disk. A compress-rewrite writes the new
// extents before the old ones are freed, so it needs free space of its own while it works; a
// margin is always left for the system.
class FreeSpaceGuard
{
public:
    // Below this much room beyond the margin the helper works in small pieces, committing each
    // so the old extents are freed at once.
    static constexpr qint64 kLowRoom = 64 * 1024 * 1024;
    // The least room a piece needs.
    static constexpr qint64 kMinRoom = 2 * 1024 * 1024;
    // How often a folder waiting for room looks again.
    static constexpr int kPollMs = 3000;

    // Free space on the file system of fd beyond the margin the helper leaves free there (1% of
    // it, at least 4 MiB, at most 512 MiB); negative when the margin is already eaten into, 0
    // when unknown.
    static qint64 room(int fd);
};
