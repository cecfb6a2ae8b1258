#include "loginitems/LoginItemsAgent.h"

#include "common/BDAlias.h"
#include "loginitems/LoginItemsLog.h"
#include "platform/Bundle.h"
#include "platform/DetachedSpawn.h"
#include "platform/FileManager.h"
#include "platform/PreferencesDomain.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <vector>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

extern char **environ;

namespace {

void report(const QString &line)
{
    qCWarning(lcLoginItems).noquote() << line;
}

} // namespace

int LoginItemsAgent::openAll()
{
    const QVariant value =
        PreferencesDomain(QStringLiteral("loginwindow")).copyValue(QStringLiteral("AutoLaunchedApplicationDictionary"));
    int opened = 0;
    const QVariantList entries = value.toList();
    for (const QVariant &item : entries) {
        const QVariantMap entry = item.toMap();
        const QString application = locate(entry);
        if (application.isEmpty()) {
            report(QStringLiteral("cannot find the login item %1").arg(entry.value(QStringLiteral("Path")).toString()));
            continue;
        }
        const QString executable = executableOf(application);
        if (executable.isEmpty()) {
            report(QStringLiteral("%1 is not an application").arg(application));
            continue;
        }
        if (isSafeToRun(executable) && spawn(executable, entry.value(QStringLiteral("Hide")).toBool()))
            ++opened;
    }
    return opened;
}

QString LoginItemsAgent::locate(const QVariantMap &entry)
{
    const QString path = entry.value(QStringLiteral("Path")).toString();
    if (!path.isEmpty() && FileManager::fileExists(path))
        return path;
    const QVariant data = entry.value(QStringLiteral("AliasData"));
    if (data.typeId() != QMetaType::QByteArray)
        return {};
    return BDAlias(data.toByteArray()).fullPath();
}

QString LoginItemsAgent::executableOf(const QString &application)
{
    const QFileInfo info(application);
    if (info.isDir()) {
        if (!QFileInfo::exists(application + QStringLiteral("/Contents/Info.plist")))
            return {};
        const Bundle *bundle = Bundle::bundleWithPath(application);
        return bundle ? bundle->executablePath() : QString();
    }
    return info.isFile() && info.isExecutable() ? info.absoluteFilePath() : QString();
}

bool LoginItemsAgent::isSafeToRun(const QString &executable)
{
    // Nothing another user could have replaced: owned by us or root, writable by no one else.
    struct stat st = {};
    const QByteArray native = QFile::encodeName(executable);
    if (::stat(native.constData(), &st) != 0 || !S_ISREG(st.st_mode)) {
        report(QStringLiteral("cannot run %1").arg(executable));
        return false;
    }
    if ((st.st_uid != ::getuid() && st.st_uid != 0) || (st.st_mode & (S_IWGRP | S_IWOTH))) {
        report(QStringLiteral("not running %1: another user can change it").arg(executable));
        return false;
    }
    return true;
}

bool LoginItemsAgent::spawn(const QString &executable, bool hide)
{
    const QByteArray program = QFile::encodeName(executable);
    char *const argv[] = {const_cast<char *>(program.constData()), nullptr};

    // A hidden application runs without a display of its own, so it shows no window.
    QList<QByteArray> env;
    for (char **e = environ; *e; ++e) {
        if (!hide || !QByteArray(*e).startsWith("QT_QPA_PLATFORM="))
            env.append(*e);
    }
    if (hide)
        env.append("QT_QPA_PLATFORM=offscreen");
    std::vector<char *> envp;
    for (QByteArray &e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    // Like any application the desktop opens: detached, holding nothing of the agent's.
    const pid_t pid = DetachedSpawn::spawn(program.constData(), argv, envp.data(), false, true);
    const int rc = pid < 0 ? errno : 0;
    if (rc != 0) {
        report(QStringLiteral("cannot start %1: %2").arg(executable, QString::fromLocal8Bit(std::strerror(rc))));
        return false;
    }
    return true;
}
