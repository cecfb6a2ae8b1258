#include "platform/AtomicFile.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool fail(QString *error, const QString &what)
{
    if (error)
        *error = what + QStringLiteral(": ") + QString::fromLocal8Bit(std::strerror(errno));
    return false;
}

} // namespace

bool AtomicFile::write(const QString &path, const QByteArray &bytes, QString *error, unsigned mode)
{
    if (path.isEmpty()) {
        if (error)
            *error = QStringLiteral("no path");
        return false;
    }
    const QByteArray target = QFile::encodeName(path);
    const qsizetype slash = target.lastIndexOf('/');
    const QByteArray dir = slash > 0 ? target.left(slash) : QByteArray(slash == 0 ? "/" : ".");

    QByteArray temp = target + ".XXXXXX";
    const int fd = mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0)
        return fail(error, QStringLiteral("cannot create a temporary file beside %1").arg(path));

    auto abandon = [&](const QString &what) {
        const int saved = errno;
        ::close(fd);
        ::unlink(temp.constData());
        errno = saved;
        return fail(error, what);
    };

    if (::fchmod(fd, mode) != 0)
        return abandon(QStringLiteral("cannot set permissions"));
    const char *p = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, size_t(left));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return abandon(QStringLiteral("cannot write %1").arg(path));
        }
        p += n;
        left -= n;
    }
    if (::fsync(fd) != 0)
        return abandon(QStringLiteral("cannot flush %1").arg(path));
    if (::close(fd) != 0) {
        ::unlink(temp.constData());
        return fail(error, QStringLiteral("cannot close %1").arg(path));
    }
    if (::rename(temp.constData(), target.constData()) != 0) {
        const int saved = errno;
        ::unlink(temp.constData());
        errno = saved;
        return fail(error, QStringLiteral("cannot replace %1").arg(path));
    }
    // Make the rename itself durable.
    const int dirfd = ::open(dir.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirfd >= 0) {
        ::fsync(dirfd);
        ::close(dirfd);
    }
    return true;
}
