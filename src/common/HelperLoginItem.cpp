#include "common/HelperLoginItem.h"

#include "common/BDAlias.h"
#include "common/HelperIdentity.h"
#include "platform/PreferencesDomain.h"

#include <QVariantList>
#include <QVariantMap>

#include <algorithm>

namespace {

const QString kDomain = QStringLiteral("loginwindow");
const QString kListKey = QStringLiteral("AutoLaunchedApplicationDictionary");
const QString kPathKey = QStringLiteral("Path");
const QString kAliasDataKey = QStringLiteral("AliasData");
const QString kHideKey = QStringLiteral("Hide");

bool isHelperEntry(const QVariant &entry)
{
    const QVariantMap item = entry.toMap();
    return item.contains(kPathKey) && item.value(kPathKey).toString().endsWith(HelperIdentity::bundleName());
}

} // namespace

HelperLoginItem::HelperLoginItem(QObject *parent)
    : QObject(parent)
{
}

bool HelperLoginItem::isEnabled()
{
    const QVariantList list = PreferencesDomain(kDomain).copyValue(kListKey).toList();
    return std::any_of(list.cbegin(), list.cend(), isHelperEntry);
}

void HelperLoginItem::setEnabled(bool enabled, const QString &helperPath)
{
    if (isEnabled() == enabled)
        return;

    PreferencesDomain domain(kDomain);
    const QVariant current = domain.copyValue(kListKey);
    // A user with no list keeps having none: only an existing list is edited.
    QVariant list;
    if (current.isValid()) {
        QVariantList items = current.toList();
        if (enabled) {
            const std::unique_ptr<BDAlias> alias = helperPath.isEmpty() ? nullptr : BDAlias::aliasWithPath(helperPath);
            // Without an alias the entry's values end before their first key: an empty entry.
            QVariantMap entry;
            if (alias) {
                entry.insert(kAliasDataKey, alias->aliasData());
                entry.insert(kPathKey, helperPath);
                entry.insert(kHideKey, false);
            }
            items.append(entry);
        } else {
            items.removeIf(isHelperEntry);
        }
        list = items;
    }
    domain.setValue(kListKey, list);
    domain.synchronize();

    Q_EMIT changed();
}

void HelperLoginItem::regenerate(const QString &helperPath)
{
    if (isEnabled()) {
        setEnabled(false, helperPath);
        setEnabled(true, helperPath);
    }
}
