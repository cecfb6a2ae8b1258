#include "platform/PreferencesDomain.h"
#include "platform/PlatformLog.h"

#include "platform/FileManager.h"
#include "platform/PropertyList.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

// A marker for "remove this key" among the pending changes.
const QString kRemoved = QStringLiteral("\x01vantor-removed");

} // namespace

PreferencesDomain::PreferencesDomain(const QString &domain)
    : m_domain(domain)
{
}

QString PreferencesDomain::directory()
{
    QString config = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (!QDir::isAbsolutePath(config))
        config = qEnvironmentVariable("HOME") + QStringLiteral("/.config");
    return config + QStringLiteral("/vantor/preferences");
}

QString PreferencesDomain::filePath() const
{
    return directory() + u'/' + m_domain + QStringLiteral(".plist");
}

QVariantMap PreferencesDomain::read(bool *ok) const
{
    *ok = true;
    const QString path = filePath();
    if (!QFileInfo::exists(path))
        return {};
    const std::optional<QVariant> value = PropertyList::readFile(path);
    if (!value || value->typeId() != QMetaType::QVariantMap) {
        *ok = false;
        return {};
    }
    return value->toMap();
}

QVariant PreferencesDomain::copyValue(const QString &key) const
{
    bool ok = true;
    const QVariantMap values = read(&ok);
    if (!ok)
        qCWarning(lcPlatform, "%s is not a property-list dictionary; its settings are ignored", qPrintable(filePath()));
    return values.value(key);
}

void PreferencesDomain::setValue(const QString &key, const QVariant &value)
{
    m_pending.insert(key, value.isValid() ? value : QVariant(kRemoved));
}

bool PreferencesDomain::synchronize()
{
    if (m_pending.isEmpty())
        return true;
    bool ok = true;
    QVariantMap values = read(&ok);
    if (!ok) {
        qCWarning(lcPlatform, "%s is not a property-list dictionary; left unchanged", qPrintable(filePath()));
        m_pending.clear();
        return false;
    }
    const QVariantMap before = values;
    for (auto it = m_pending.cbegin(); it != m_pending.cend(); ++it) {
        if (it.value() == QVariant(kRemoved))
            values.remove(it.key());
        else
            values.insert(it.key(), it.value());
    }
    m_pending.clear();
    if (values == before)
        return true;

    if (QString error; !FileManager::createUserDirectory(directory(), &error)) {
        qCWarning(lcPlatform, "%s", qPrintable(error));
        return false;
    }
    QString error;
    if (!PropertyList::writeFile(filePath(), values, &error)) {
        qCWarning(lcPlatform, "cannot write %s: %s", qPrintable(filePath()), qPrintable(error));
        return false;
    }
    return true;
}
