// VantorPref: the helper's login item, kept by HelperLoginItem.

#include "prefpane/VantorPref.h"

#include "common/HelperIdentity.h"
#include "common/HelperLoginItem.h"

bool VantorPref::autorunAtLogin() const
{
    return HelperLoginItem::isEnabled();
}

void VantorPref::setAutorunAtLogin(bool autorun)
{
    m_loginItem->setEnabled(autorun, HelperIdentity::applicationPath(bundle()));
}

void VantorPref::regenerateAutologinItem()
{
    m_loginItem->regenerate(HelperIdentity::applicationPath(bundle()));
}
