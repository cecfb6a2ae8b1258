#pragma once

#include <QString>
#include <QtGlobal>

#include <memory>

#include "common/VantorCommonExport.h"

class HistoryContext;
class HistoryModel;
class HistoryStore;

// Class-level utilities shared by the pane and the helper.
class VANTOR_COMMON_EXPORT VTUtil
{
public:
    // The product folder "Vantor" in the user's application-data folder, made on first use
    // (without intermediate folders) and kept for the life of the process. Empty when it did
    // not exist and could not be made; the next call then tries again.
    static QString applicationSupportFolder();

    // A byte count for people: bytes up to 1023, then decimal KB, MB and GB, always in the
    // C locale and with single-precision arithmetic ("1.02 KB" for 1024 bytes).
    static QString getPrettySize(quint64 size);

    // The process's own history stack over "history.db", built on first demand from the main
    // bundle's model and kept (the helper's; the pane has its own in VTHistoryController).
    static std::shared_ptr<const HistoryModel> managedObjectModel();
    static HistoryStore *persistentStoreCoordinator();
    static HistoryContext *managedObjectContext();
    // Drops the context; the coordinator stays, so the next request makes a new context on it.
    static void closeDatabase();
    // True when the file is absent or its schema readable; otherwise tells the user and deletes it.
    static bool ensureIntegrityOfDatabaseAtPath(const QString &path);

    // Tests only: forget the kept product folder so the next call looks it up again.
    static void forgetApplicationSupportFolder();

    VTUtil() = delete;
};
