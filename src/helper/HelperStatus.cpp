#include "helper/HelperStatus.h"

#include "common/HelperIdentity.h"
#include "helper/CompressionEngine.h"
#include "helper/HelperLog.h"

#include <QDBusConnection>

HelperStatus::HelperStatus(const CompressionEngine *engine, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
{
}

bool HelperStatus::publish()
{
    if (QDBusConnection::sessionBus().registerObject(HelperIdentity::statusPath(), HelperIdentity::statusInterface(),
                                                     this, QDBusConnection::ExportScriptableSlots))
        return true;
    qCWarning(lcHelper, "cannot answer status questions on the session bus at %s",
              qPrintable(HelperIdentity::statusPath()));
    return false;
}

QString HelperStatus::Status(QString &reason, QString &description) const
{
    const CompressionEngine::Status status = m_engine->status();
    reason = CompressionEngine::reasonCode(status.reason);
    description = CompressionEngine::describe(status);
    return CompressionEngine::activityCode(status.activity);
}
