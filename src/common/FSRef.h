#pragma once

#include <QByteArray>
#include <QString>

#include <sys/stat.h>

#include "common/VantorCommonExport.h"

// A reference to an existing file or folder that stays valid while it is moved: an open
// O_PATH descriptor, owned and closed by this object. Movable, not copyable.
class VANTOR_COMMON_EXPORT FSRef
{
public:
    FSRef() = default;
    FSRef(FSRef &&other) noexcept;
    FSRef &operator=(FSRef &&other) noexcept;
    FSRef(const FSRef &) = delete;
    FSRef &operator=(const FSRef &) = delete;
    ~FSRef();

    // The item a path names now; symbolic links are followed. An invalid reference when
    // nothing is there, with *status set to -43 (file not found) when given.
    static FSRef fromPath(const QString &path, int *status = nullptr);

    bool isValid() const { return m_fd >= 0; }
    int fd() const { return m_fd; }
    const struct stat &fileStatus() const { return m_stat; }
    // The item's present absolute path, as bytes; empty when the kernel cannot name it.
    QByteArray path() const;

private:
    int m_fd = -1;
    struct stat m_stat = {};
};
