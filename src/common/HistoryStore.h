#pragma once

#include <QString>

#include <functional>
#include <memory>

#include "common/VantorCommonExport.h"
#include "platform/PresentableError.h"

class HistoryModel;
struct sqlite3;

// How the store's failures reach the user. The widget library installs alerts when it is
// loaded; in a process without it the texts go to the log.
struct HistoryStoreAlerts {
    std::function<void(const QString &messageText, const QString &informativeText)> runAlert;
    std::function<void(const PresentableError &error)> presentError;
};

// The persistent store coordinator of "history.db": one SQLite connection (WAL journal,
// busy timeout) with the model's tables. Contexts read through it; the pane never writes.
class VANTOR_COMMON_EXPORT HistoryStore
{
public:
    static constexpr const char *kFileName = "history.db";
    static constexpr const char *kErrorDomain = "com.quillfen.vantor.error";
    static constexpr int kErrorCode = 9999;
    // How long a read waits for the helper's write to finish before it gives up.
    static constexpr int kBusyTimeoutMs = 5000;

    explicit HistoryStore(std::shared_ptr<const HistoryModel> model);
    ~HistoryStore();
    HistoryStore(const HistoryStore &) = delete;
    HistoryStore &operator=(const HistoryStore &) = delete;

    const HistoryModel *managedObjectModel() const { return m_model.get(); }
    // Opens the store at path, creating the file (user-only) and the model's tables when
    // missing. False with error filled in when it cannot.
    bool addPersistentStore(const QString &path, PresentableError *error);
    QString storePath() const { return m_path; }
    sqlite3 *connection() const { return m_db; }

    // True when the file at the store's path is no longer the one this store opened (the
    // pane deleted an unusable store, or it was replaced). A long-lived writer then reopens.
    bool isStoreFileReplaced() const;
    // Closes the connection and opens the store at the same path again.
    bool reopenPersistentStore(PresentableError *error);

    // The integrity rule: a file whose schema cannot be read is shown the "Vantor Database
    // Error" alert and deleted. True when the file is absent or sound.
    static bool ensureIntegrityOfDatabaseAtPath(const QString &path);
    // The same check without its repair, for a reader that must leave the file alone.
    static bool isDatabaseReadableAtPath(const QString &path);

    // A coordinator over "history.db" in the product folder, built as both owners of a stack
    // build theirs: check the model, check the file's integrity, attach the store. Null, with
    // the failure reported (assertion and log line, or the presented store error), when it
    // cannot be built; owner and operation name the caller in those reports.
    static std::unique_ptr<HistoryStore> coordinatorWithModel(std::shared_ptr<const HistoryModel> model,
                                                              const char *owner, const char *operation,
                                                              const char *sourceFile);

    static void setAlerts(const HistoryStoreAlerts &alerts);
    static void runAlert(const QString &messageText, const QString &informativeText);
    static void presentError(const PresentableError &error);
    // The error a context request reports when no store could be built.
    static PresentableError initializationError();

private:
    std::shared_ptr<const HistoryModel> m_model;
    sqlite3 *m_db = nullptr;
    QString m_path;
    quint64 m_device = 0;
    quint64 m_inode = 0;
};
