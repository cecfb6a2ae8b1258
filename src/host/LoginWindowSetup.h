#pragma once

#include <QByteArray>
#include <QString>

// On the original platform the login window and its login-item list are always there. The
// host plays that part for the current user: the agent's autostart entry and a list (empty
// to begin with) exist once it has started. Existing ones are left alone.
class LoginWindowSetup
{
public:
    static void ensure();

    static QString autostartEntryPath();
    // The entry that starts the agent installed beside this host.
    static QByteArray autostartEntry(const QString &agent);

private:
    static void ensureAutostartEntry();
    static void ensureLoginItemList();
    // The program an autostart entry's Exec line starts.
    static QString execProgram(const QString &entryPath);
};
