#pragma once

#include <QString>
#include <QStringList>

#include <optional>

class QUrl;

#include "platform/VantorPlatformExport.h"

// File-system services of the desktop: where per-user data lives, the per-user private
// temporary folder, and small queries the pane makes of the file manager.
class VANTOR_PLATFORM_EXPORT FileManager
{
public:
    // The user's application-data folders, most important first: $XDG_DATA_HOME when it is
    // an absolute path, else $HOME/.local/share when $HOME is absolute; empty when neither is.
    // The original platform's Application Support folder always exists; a fresh account (a new
    // user, a server reached over ssh) may lack this one, so the first is made here when
    // missing (createUserDirectory). A folder that cannot be made is still returned: what is
    // to be made inside it fails and says so.
    static QStringList applicationSupportDirectories();
    // An XDG base folder: $variable when it is an absolute path, else $HOME/belowHome when
    // $HOME is absolute; empty when neither is.
    static QString userDirectory(const char *variable, const QString &belowHome);
    // Makes path and every missing folder above it, each 0700, as the XDG base-directory rules
    // ask of a missing base folder; folders that exist keep their permissions. False with
    // *error ("cannot create PATH: why") when it cannot.
    static bool createUserDirectory(const QString &path, QString *error = nullptr);

    // A folder only this user can reach, ending in '/': $XDG_RUNTIME_DIR/vantor/ (made 0700,
    // and used only while it is ours, a real folder and 0700), else a fresh mkdtemp folder
    // (0700) under $TMPDIR or /tmp, made once per process. Never a shared folder itself,
    // since the pane runs what it puts there. Empty if none could be made.
    static QString temporaryDirectory();

    static bool fileExists(const QString &path, bool *isDirectory = nullptr);
    static bool fileExistsAtFileSystemRepresentation(const QByteArray &path, bool *isDirectory = nullptr);

    // The bytes of a file: URL's path exactly as the file system has them; empty for any
    // other URL. Paths are bytes: they need not be UTF-8.
    static QByteArray fileSystemRepresentation(const QUrl &fileURL);
    // The path as a string when its bytes are valid UTF-8; nullopt otherwise, since such a
    // path cannot be sent or stored unchanged.
    static std::optional<QString> stringWithFileSystemRepresentation(const QByteArray &path);
    // Makes one folder with mode (no intermediate folders); false with *error set when it
    // cannot.
    static bool createDirectoryAtPath(const QString &path, unsigned mode, QString *error = nullptr);
    // The item's own permission bits (a link describes itself, not its target); nullopt when
    // it cannot be read.
    static std::optional<unsigned> posixPermissionsOfItemAtPath(const QString &path);
    // Copies a file with its permissions; fails, changing nothing, when destination exists.
    static bool copyItemAtPath(const QString &source, const QString &destination, QString *error = nullptr);
    // Removes a file, or a folder with everything in it; a link is removed, never followed.
    static bool removeItemAtPath(const QString &path, QString *error = nullptr);
};
