#include "common/FolderRequest.h"

#include "platform/FileManager.h"

QList<QByteArray> FolderRequest::existingDirectories(const QList<QByteArray> &paths)
{
    QList<QByteArray> directories;
    for (const QByteArray &path : paths) {
        bool isDirectory = false;
        if (FileManager::fileExistsAtFileSystemRepresentation(path, &isDirectory) && isDirectory)
            directories.append(path);
    }
    return directories;
}

QStringList FolderRequest::decodablePaths(const QList<QByteArray> &paths, QList<QByteArray> *undecodable)
{
    QStringList strings;
    for (const QByteArray &path : paths) {
        if (const std::optional<QString> string = FileManager::stringWithFileSystemRepresentation(path))
            strings.append(*string);
        else if (undecodable)
            undecodable->append(path);
    }
    return strings;
}

QString FolderRequest::undecodableMessage(const QByteArray &path)
{
    return QStringLiteral("Vantor cannot keep the folder %1 compressed: its path is not valid UTF-8")
        .arg(QString::fromLatin1(path.toPercentEncoding("/")));
}

bool FolderRequest::removeOtherVolumes(QStringList *paths)
{
    return paths->removeIf([](const QString &path) { return path.startsWith(QLatin1String(kVolumesPrefix)); }) > 0;
}

QString FolderRequest::otherVolumesMessage()
{
    return QStringLiteral("Some of the folders you tried to add, were located in volumes different than main, and "
                          "were removed.");
}
