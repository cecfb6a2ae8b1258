#pragma once

#include <QString>
#include <QVariant>

// The login window of this system: opens, in order, every application of the user's
// login-item list ("AutoLaunchedApplicationDictionary" of the "loginwindow" domain).
class LoginItemsAgent
{
public:
    // Opens every entry; returns how many were started.
    int openAll();

private:
    // The entry's application: its "Path" while something is there, else where its
    // "AliasData" leads. Empty when neither finds it.
    static QString locate(const QVariantMap &entry);
    // The program to run for an application: a bundle's executable, or the file itself.
    static QString executableOf(const QString &application);
    static bool isSafeToRun(const QString &executable);
    static bool spawn(const QString &executable, bool hide);
};
