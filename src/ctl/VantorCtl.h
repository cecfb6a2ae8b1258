#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

class HistorySnapshot;

// The command line of Vantor: the pane's contract (settings store, History records read-only,
// the same notifications in the same order) for people and scripts.
class VantorCtl
{
public:
    enum ExitCode {
        Done = 0,
        Failed = 1, // refused or failed, with one line on stderr
        Usage = 2,
    };

    // arguments: argv without the program name, as bytes (paths need not be UTF-8).
    int run(const QList<QByteArray> &arguments);

    static QString usage();

private:
    int status(bool json);
    int list(bool json);
    int add(const QList<QByteArray> &paths);
    int remove(const QList<QByteArray> &paths);
    int setActive(bool active);
    int report(const QList<QByteArray> &paths, bool json, int depth);

    // The pane bundle: given with --pane, else the installed one. Empty with a message when none.
    QString paneBundle();
    static bool waitForHelper();
    // What the running helper says it is doing: "working", or "waiting" and why.
    struct HelperState {
        QString activity;
        QString reason;
        QString description;
    };
    static HelperState askHelper();
    static constexpr int kStatusTimeoutMs = 2000;
    static constexpr int kHelperStartSeconds = 10;
    bool readHistory(HistorySnapshot *snapshot);
    // Whether requests can reach the helper now; false with the reason told.
    bool helperCanBeAsked();
    void postFolders(const char *key, const QStringList &folders);
    static void flush();

    static QByteArray absolute(const QByteArray &path);
    static void fail(const QString &line);
    static void print(const QString &text);

    QString m_paneBundle;
};
