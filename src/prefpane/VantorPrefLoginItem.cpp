// VantorPref: the helper's login item, an entry in the login window's list.

#include "prefpane/VantorPref.h"

#include "common/BDAlias.h"
#include "platform/Bundle.h"
#include "platform/PreferencesDomain.h"

#include <algorithm>

namespace {

const QString kDomain = QStringLiteral("loginwindow");
const QString kListKey = QStringLiteral("AutoLaunchedApplicationDictionary");
const QString kPathKey = QStringLiteral("Path");
const QString kAliasDataKey = QStringLiteral("AliasData");
const QString kHideKey = QStringLiteral("Hide");
// Any copy of the helper counts, wherever it lies; other applications are never touched.
const QString kHelperSuffix = QStringLiteral("VantorHelper.app");

bool isHelperEntry(const QVariant &entry)
{
    const QVariantMap item = entry.toMap();
    return item.contains(kPathKey) && item.value(kPathKey).toString().endsWith(kHelperSuffix);
}

} // namespace

bool VantorPref::autorunAtLogin() const
{
    const QVariantList list = PreferencesDomain(kDomain).copyValue(kListKey).toList();
    return std::any_of(list.cbegin(), list.cend(), isHelperEntry);
}

void VantorPref::setAutorunAtLogin(bool autorun)
{
    if (autorunAtLogin() == autorun)
        return;

    PreferencesDomain domain(kDomain);
    const QVariant current = domain.copyValue(kListKey);
    // A user with no list keeps having none: only an existing list is edited.
    QVariant list;
    if (current.isValid()) {
        QVariantList items = current.toList();
        if (autorun) {
            const QString helper =
                bundle() ? bundle()->pathForResource(QStringLiteral("VantorHelper"), QStringLiteral("app")) : QString();
            const std::unique_ptr<BDAlias> alias = helper.isEmpty() ? nullptr : BDAlias::aliasWithPath(helper);
            // Without an alias the entry's values end before their first key: an empty entry.
            QVariantMap entry;
            if (alias) {
                entry.insert(kAliasDataKey, alias->aliasData());
                entry.insert(kPathKey, helper);
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

    Q_EMIT autorunAtLoginChanged();
}

void VantorPref::regenerateAutologinItem()
{
    // Replaces every entry of the helper with one fresh entry for its present place.
    if (autorunAtLogin()) {
        setAutorunAtLogin(false);
        setAutorunAtLogin(true);
    }
}
