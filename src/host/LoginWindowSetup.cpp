#include "host/LoginWindowSetup.h"
#include "host/HostLog.h"

#include "platform/AtomicFile.h"
#include "platform/FileManager.h"
#include "platform/PreferencesDomain.h"
#include "platform/ProcessInfo.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

const QString kListKey = QStringLiteral("AutoLaunchedApplicationDictionary");

// Desktop-entry quoting: the path goes in double quotes with ", `, $ and \ escaped.
QString quoteExec(const QString &program)
{
    QString quoted;
    for (const QChar c : program) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
            quoted += u'\\';
        quoted += c;
    }
    // Backslashes are escaped once more by the desktop entry's string rules.
    return u'"' + quoted.replace(u'\\', QStringLiteral("\\\\")) + u'"';
}

QString agentPath()
{
    const QString exe = ProcessInfo::processInfo()->executablePath();
    return QFileInfo(exe).absolutePath() + QStringLiteral("/vantor-login-items");
}

} // namespace

void LoginWindowSetup::ensure()
{
    ensureAutostartEntry();
    ensureLoginItemList();
}

QString LoginWindowSetup::autostartEntryPath()
{
    QString config = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (!QDir::isAbsolutePath(config))
        config = qEnvironmentVariable("HOME") + QStringLiteral("/.config");
    return config + QStringLiteral("/autostart/vantor-login-items.desktop");
}

QByteArray LoginWindowSetup::autostartEntry(const QString &agent)
{
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Vantor login items\n"
           "Comment=Opens the applications Vantor starts at login\n"
           "Exec="
        + quoteExec(agent).toUtf8()
        + "\n"
          "NoDisplay=true\n"
          "X-GNOME-Autostart-Phase=Applications\n";
}

void LoginWindowSetup::ensureAutostartEntry()
{
    const QString path = autostartEntryPath();
    const QString agent = agentPath();
    // An entry is kept while the program it starts is there (another install's included).
    if (QFileInfo::exists(path) && QFileInfo::exists(execProgram(path)))
        return;
    if (!QFileInfo::exists(agent)) {
        qCWarning(lcHost, "%s is missing; login items will not open at login", qPrintable(agent));
        return;
    }
    QString error;
    if (!FileManager::createUserDirectory(QFileInfo(path).path(), &error)
        || !AtomicFile::write(path, autostartEntry(agent), &error, 0644))
        qCWarning(lcHost, "cannot write %s: %s", qPrintable(path), qPrintable(error));
}

QString LoginWindowSetup::execProgram(const QString &entryPath)
{
    QFile file(entryPath);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (!line.startsWith("Exec="))
            continue;
        // The string layer first (a doubled backslash is one), then the Exec quoting (backslash-x is x).
        const QString exec =
            QString::fromUtf8(line.mid(5)).trimmed().replace(QStringLiteral("\\\\"), QStringLiteral("\\"));
        if (!exec.startsWith(u'"'))
            return exec.section(u' ', 0, 0);
        QString program;
        for (qsizetype i = 1; i < exec.size() && exec[i] != u'"'; ++i) {
            if (exec[i] == u'\\' && i + 1 < exec.size())
                ++i;
            program += exec[i];
        }
        return program;
    }
    return {};
}

void LoginWindowSetup::ensureLoginItemList()
{
    // A domain file that is not a property list is reported and left as it is.
    PreferencesDomain domain(QStringLiteral("loginwindow"));
    if (!domain.copyValue(kListKey).isValid()) {
        domain.setValue(kListKey, QVariantList());
        domain.synchronize();
    }
}
