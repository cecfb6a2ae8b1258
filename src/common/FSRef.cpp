#include "common/FSRef.h"

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <utility>

namespace {
constexpr int kFileNotFound = -43;
}

FSRef::FSRef(FSRef &&other) noexcept
    : m_fd(std::exchange(other.m_fd, -1))
    , m_stat(other.m_stat)
{
}

FSRef &FSRef::operator=(FSRef &&other) noexcept
{
    if (this != &other) {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = std::exchange(other.m_fd, -1);
        m_stat = other.m_stat;
    }
    return *this;
}

FSRef::~FSRef()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

FSRef FSRef::fromPath(const QString &path, int *status)
{
    FSRef ref;
    const QByteArray native = QFile::encodeName(path);
    if (!path.isEmpty()) {
        ref.m_fd = ::open(native.constData(), O_PATH | O_CLOEXEC);
        if (ref.m_fd >= 0 && ::fstat(ref.m_fd, &ref.m_stat) != 0) {
            ::close(ref.m_fd);
            ref.m_fd = -1;
        }
    }
    if (status)
        *status = ref.isValid() ? 0 : kFileNotFound;
    return ref;
}

QByteArray FSRef::path() const
{
    if (m_fd < 0)
        return {};
    char buffer[PATH_MAX + 1];
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(m_fd);
    const ssize_t n = ::readlink(link.constData(), buffer, PATH_MAX);
    if (n <= 0)
        return {};
    QByteArray result(buffer, n);
    // Items outside our root have no usable name.
    if (!result.startsWith('/'))
        return {};
    // The kernel marks an unlinked item by this suffix, which is also a name anyone may
    // give: only a name that still leads to this item is one.
    if (result.endsWith(" (deleted)")) {
        struct stat st { };
        if (::stat(result.constData(), &st) != 0 || st.st_dev != m_stat.st_dev || st.st_ino != m_stat.st_ino)
            return {};
    }
    return result;
}
