#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include "common/VantorCommonExport.h"

// What may be asked of the helper as a folder to keep compressed, decided the same way
// wherever the request comes from (the pane's chooser and drops, vantorctl).
class VANTOR_COMMON_EXPORT FolderRequest
{
public:
    static constexpr const char *kVolumesPrefix = "/Volumes/";

    // The paths that are existing directories, in their order; files and missing paths are dropped.
    static QList<QByteArray> existingDirectories(const QList<QByteArray> &paths);
    // The paths that are valid UTF-8, as strings; the others go to undecodable. Such a path
    // could not be sent to the helper or stored unchanged.
    static QStringList decodablePaths(const QList<QByteArray> &paths, QList<QByteArray> *undecodable);
    // The one line that refuses a path that is not UTF-8 (percent-encoded, so it can be shown).
    static QString undecodableMessage(const QByteArray &path);
    // Drops every path that begins with "/Volumes/" (as given: links are not resolved).
    // True when any was dropped.
    static bool removeOtherVolumes(QStringList *paths);
    // The text that tells the user that such paths were dropped.
    static QString otherVolumesMessage();

    FolderRequest() = delete;
};
