#include "common/HistoryStore.h"
#include "common/CommonLog.h"

#include "common/HistoryModel.h"
#include "common/VTUtil.h"

#include <QFile>

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

HistoryStoreAlerts &installedAlerts()
{
    static HistoryStoreAlerts alerts;
    return alerts;
}

// An exclusive lock on "<store>.lock", shared by the pane and the helper, so one process
// never deletes a file another is checking.
class StoreLock
{
public:
    explicit StoreLock(const QString &storePath)
    {
        const QByteArray path = QFile::encodeName(storePath + QStringLiteral(".lock"));
        m_fd = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (m_fd < 0) {
            qCWarning(lcCommon, "cannot open the store lock %s: %s", path.constData(), std::strerror(errno));
            return;
        }
        while (::flock(m_fd, LOCK_EX) != 0 && errno == EINTR) { }
    }
    ~StoreLock()
    {
        if (m_fd >= 0)
            ::close(m_fd); // releases the lock
    }
    StoreLock(const StoreLock &) = delete;
    StoreLock &operator=(const StoreLock &) = delete;

private:
    int m_fd = -1;
};

bool sameFile(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Only whether the pragma can be prepared counts: a file whose schema is readable passes
// even with damaged pages.
bool schemaIsReadable(const QByteArray &path)
{
    sqlite3 *db = nullptr;
    bool sound = false;
    if (sqlite3_open(path.constData(), &db) == SQLITE_OK) {
        // A store another process is writing is busy, not damaged: wait for it rather than
        // take its lock for a broken schema and delete the user's records.
        sqlite3_busy_timeout(db, 10000);
        sqlite3_stmt *statement = nullptr;
        sound = sqlite3_prepare_v2(db, "PRAGMA integrity_check;", -1, &statement, nullptr) == SQLITE_OK;
        if (sound) {
            sqlite3_step(statement);
            sqlite3_finalize(statement);
        }
    }
    sqlite3_close(db);
    return sound;
}

} // namespace

HistoryStore::HistoryStore(std::shared_ptr<const HistoryModel> model)
    : m_model(std::move(model))
{
}

HistoryStore::~HistoryStore()
{
    sqlite3_close(m_db);
}

bool HistoryStore::addPersistentStore(const QString &path, PresentableError *error)
{
    auto fail = [&](int code, const QString &reason) {
        if (error) {
            *error = {QStringLiteral("org.sqlite"), code,
                      QStringLiteral("The history store \"%1\" could not be opened.").arg(path), reason};
        }
        qCWarning(lcCommon, "cannot open the history store %s: %s", qPrintable(path), qPrintable(reason));
        sqlite3_close(m_db);
        m_db = nullptr;
        return false;
    };

    const QByteArray encoded = QFile::encodeName(path);
    // Made here, user-only, so SQLite's own files (which copy its mode) are private too.
    const int fd = ::open(encoded.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0)
        ::close(fd);
    else if (errno != EEXIST)
        return fail(SQLITE_CANTOPEN, QString::fromLocal8Bit(std::strerror(errno)));

    int rc = sqlite3_open_v2(encoded.constData(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, nullptr);
    if (rc != SQLITE_OK)
        return fail(rc, QString::fromUtf8(m_db ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc)));
    sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
    sqlite3_extended_result_codes(m_db, 1);

    QStringList statements{QStringLiteral("PRAGMA journal_mode=WAL")};
    statements += m_model->schemaStatements();
    for (const QString &sql : std::as_const(statements)) {
        char *message = nullptr;
        rc = sqlite3_exec(m_db, sql.toUtf8().constData(), nullptr, nullptr, &message);
        if (rc != SQLITE_OK) {
            const QString reason = QString::fromUtf8(message ? message : sqlite3_errstr(rc));
            sqlite3_free(message);
            return fail(rc, reason);
        }
    }
    struct stat opened { };
    if (::stat(encoded.constData(), &opened) == 0) {
        m_device = opened.st_dev;
        m_inode = opened.st_ino;
    }
    m_path = path;
    return true;
}

bool HistoryStore::isStoreFileReplaced() const
{
    if (m_path.isEmpty())
        return false;
    struct stat now { };
    if (::stat(QFile::encodeName(m_path).constData(), &now) != 0)
        return true;
    return quint64(now.st_dev) != m_device || quint64(now.st_ino) != m_inode;
}

bool HistoryStore::reopenPersistentStore(PresentableError *error)
{
    const QString path = m_path;
    sqlite3_close(m_db);
    m_db = nullptr;
    m_path.clear();
    ensureIntegrityOfDatabaseAtPath(path);
    return addPersistentStore(path, error);
}

bool HistoryStore::ensureIntegrityOfDatabaseAtPath(const QString &path)
{
    const QByteArray encoded = QFile::encodeName(path);
    struct stat checked { };
    if (::lstat(encoded.constData(), &checked) != 0)
        return true; // nothing there, and nothing is created (not even the lock)
    {
        StoreLock lock(path);
        if (::lstat(encoded.constData(), &checked) != 0)
            return true;
        if (schemaIsReadable(encoded))
            return true;
    }
    // The lock is not held while the alert waits for the user.
    runAlert(QStringLiteral("Vantor Database Error"),
             QStringLiteral("Vantor database is corrupt, and recovery attempts did not succeed.\n\n"
                            "A new empty database will be created now. Please note you will lose your "
                            "configured folders and savings history."));
    StoreLock lock(path);
    struct stat now { };
    // Another process may have replaced the file meanwhile; that one was not checked.
    if (::lstat(encoded.constData(), &now) == 0 && sameFile(now, checked) && ::unlink(encoded.constData()) != 0)
        qCWarning(lcCommon, "cannot delete the damaged history store %s: %s", encoded.constData(),
                  std::strerror(errno));
    return false;
}

bool HistoryStore::isDatabaseReadableAtPath(const QString &path)
{
    const QByteArray encoded = QFile::encodeName(path);
    struct stat checked { };
    if (::lstat(encoded.constData(), &checked) != 0)
        return true;
    StoreLock lock(path);
    return ::lstat(encoded.constData(), &checked) != 0 || schemaIsReadable(encoded);
}

std::unique_ptr<HistoryStore> HistoryStore::coordinatorWithModel(std::shared_ptr<const HistoryModel> model,
                                                                 const char *owner, const char *operation,
                                                                 const char *sourceFile)
{
    if (!model) {
        // An internal inconsistency: the bundle that owns the stack lacks its model resource.
        qCCritical(lcCommon, "*** Assertion failure in %s %s, %s: Managed object model is nil", owner, operation,
                   sourceFile);
        qCWarning(lcCommon, "%s:%s No model to generate a store from", owner, operation);
        return nullptr;
    }
    const QString folder = VTUtil::applicationSupportFolder();
    auto store = std::make_unique<HistoryStore>(std::move(model));
    PresentableError error;
    if (folder.isEmpty()) {
        error = {QStringLiteral("org.sqlite"), SQLITE_CANTOPEN,
                 QStringLiteral("The history store \"%1\" could not be opened.").arg(QLatin1String(kFileName)),
                 QStringLiteral("There is no product folder to keep it in.")};
        presentError(error);
        return nullptr;
    }
    const QString path = folder + u'/' + QLatin1String(kFileName);
    ensureIntegrityOfDatabaseAtPath(path);
    if (!store->addPersistentStore(path, &error)) {
        presentError(error);
        return nullptr;
    }
    return store;
}

void HistoryStore::setAlerts(const HistoryStoreAlerts &alerts)
{
    installedAlerts() = alerts;
}

void HistoryStore::runAlert(const QString &messageText, const QString &informativeText)
{
    if (installedAlerts().runAlert)
        installedAlerts().runAlert(messageText, informativeText);
    else
        qCWarning(lcCommon, "%s: %s", qPrintable(messageText), qPrintable(informativeText));
}

void HistoryStore::presentError(const PresentableError &error)
{
    if (installedAlerts().presentError)
        installedAlerts().presentError(error);
    else
        qCWarning(lcCommon, "%s (%s %d): %s", qPrintable(error.localizedDescription), qPrintable(error.domain),
                  error.code, qPrintable(error.failureReason));
}

PresentableError HistoryStore::initializationError()
{
    return {QLatin1String(kErrorDomain), kErrorCode, QStringLiteral("Failed to initialize the store"),
            QStringLiteral("There was an error building up the data file.")};
}
