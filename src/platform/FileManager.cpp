#include "platform/FileManager.h"

#include <QDir>
#include <QFile>
#include <QMutex>
#include <QStringDecoder>
#include <QUrl>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString envPath(const char *name)
{
    return QFile::decodeName(qgetenv(name));
}

// A folder we may run things from: ours, not a link, and closed to everyone else.
bool isPrivateDirectory(const QByteArray &path)
{
    struct stat st = {};
    return ::lstat(path.constData(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::geteuid()
        && (st.st_mode & 077) == 0;
}

QString runtimeTemporaryDirectory()
{
    const QString runtime = envPath("XDG_RUNTIME_DIR");
    if (!QDir::isAbsolutePath(runtime))
        return {};
    const QByteArray dir = QFile::encodeName(QDir::cleanPath(runtime) + QStringLiteral("/vantor"));
    if (::mkdir(dir.constData(), 0700) != 0 && errno != EEXIST)
        return {};
    if (!isPrivateDirectory(dir))
        return {};
    return QFile::decodeName(dir) + u'/';
}

QString madeTemporaryDirectory()
{
    static QMutex lock;
    static QString made;
    QMutexLocker locker(&lock);
    if (!made.isEmpty() && isPrivateDirectory(QFile::encodeName(made)))
        return made;
    QString base = envPath("TMPDIR");
    if (!QDir::isAbsolutePath(base))
        base = QStringLiteral("/tmp");
    QByteArray templ = QFile::encodeName(QDir::cleanPath(base) + QStringLiteral("/vantor-XXXXXX"));
    if (!::mkdtemp(templ.data()))
        return {};
    made = QFile::decodeName(templ) + u'/';
    return made;
}

} // namespace

bool FileManager::createUserDirectory(const QString &path, QString *error)
{
    const QByteArray target = QFile::encodeName(QDir::cleanPath(path));
    struct stat st = {};
    if (::stat(target.constData(), &st) == 0 && S_ISDIR(st.st_mode))
        return true;
    for (qsizetype slash = target.indexOf('/', 1);; slash = target.indexOf('/', slash + 1)) {
        const QByteArray folder = slash < 0 ? target : target.left(slash);
        if (::mkdir(folder.constData(), 0700) != 0 && errno != EEXIST) {
            if (error)
                *error = QStringLiteral("cannot create %1: %2")
                             .arg(QFile::decodeName(folder), QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        if (slash < 0)
            break;
    }
    // EEXIST for a file in the way.
    if (::stat(target.constData(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        if (error)
            *error = QStringLiteral("cannot create %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(ENOTDIR)));
        return false;
    }
    return true;
}

QString FileManager::userDirectory(const char *variable, const QString &belowHome)
{
    const QString set = envPath(variable);
    if (QDir::isAbsolutePath(set))
        return QDir::cleanPath(set);
    const QString home = envPath("HOME");
    if (QDir::isAbsolutePath(home))
        return QDir::cleanPath(home + u'/' + belowHome);
    return {};
}

QStringList FileManager::applicationSupportDirectories()
{
    const QString dataHome = userDirectory("XDG_DATA_HOME", QStringLiteral(".local/share"));
    if (dataHome.isEmpty())
        return {};
    createUserDirectory(dataHome);
    return {dataHome};
}

QString FileManager::temporaryDirectory()
{
    const QString runtime = runtimeTemporaryDirectory();
    return runtime.isEmpty() ? madeTemporaryDirectory() : runtime;
}

bool FileManager::fileExists(const QString &path, bool *isDirectory)
{
    struct stat st = {};
    const bool exists = !path.isEmpty() && ::stat(QFile::encodeName(path).constData(), &st) == 0;
    if (isDirectory)
        *isDirectory = exists && S_ISDIR(st.st_mode);
    return exists;
}

bool FileManager::fileExistsAtFileSystemRepresentation(const QByteArray &path, bool *isDirectory)
{
    struct stat st = {};
    const bool exists = !path.isEmpty() && ::stat(path.constData(), &st) == 0;
    if (isDirectory)
        *isDirectory = exists && S_ISDIR(st.st_mode);
    return exists;
}

QByteArray FileManager::fileSystemRepresentation(const QUrl &fileURL)
{
    if (!fileURL.isLocalFile())
        return {};
    // Fully encoded, the path keeps undecodable bytes as %XX; decoding those gives the bytes.
    return QByteArray::fromPercentEncoding(fileURL.path(QUrl::FullyEncoded).toLatin1());
}

std::optional<QString> FileManager::stringWithFileSystemRepresentation(const QByteArray &path)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString string = decoder.decode(path);
    if (decoder.hasError() || path.contains('\0'))
        return std::nullopt;
    return string;
}

bool FileManager::createDirectoryAtPath(const QString &path, unsigned mode, QString *error)
{
    if (::mkdir(QFile::encodeName(path).constData(), mode_t(mode)) == 0)
        return true;
    if (error)
        *error = QString::fromLocal8Bit(std::strerror(errno));
    return false;
}

std::optional<unsigned> FileManager::posixPermissionsOfItemAtPath(const QString &path)
{
    struct stat st = {};
    if (path.isEmpty() || ::lstat(QFile::encodeName(path).constData(), &st) != 0)
        return std::nullopt;
    return unsigned(st.st_mode & 07777);
}

bool FileManager::copyItemAtPath(const QString &source, const QString &destination, QString *error)
{
    QFile file(source);
    if (file.copy(destination))
        return true;
    if (error)
        *error = file.errorString();
    return false;
}

bool FileManager::removeItemAtPath(const QString &path, QString *error)
{
    struct stat st = {};
    const QByteArray encoded = QFile::encodeName(path);
    QString why;
    if (::lstat(encoded.constData(), &st) != 0)
        why = QString::fromLocal8Bit(std::strerror(errno));
    else if (S_ISDIR(st.st_mode)) {
        // Removes the links inside, never what they point to.
        if (!QDir(path).removeRecursively())
            why = QStringLiteral("some of its contents could not be removed");
    } else if (::unlink(encoded.constData()) != 0)
        why = QString::fromLocal8Bit(std::strerror(errno));
    if (why.isEmpty())
        return true;
    if (error)
        *error = QStringLiteral("cannot remove %1: %2").arg(path, why);
    return false;
}
