// VantorPref: the settings tab, whose controls go through the settings store's setters.

#include "prefpane/VantorPref.h"

#include "common/VTDefaultsController.h"
#include "ui_VantorPref.h"

namespace {

using Getter = bool (VTDefaultsController::*)() const;
using Setter = void (VTDefaultsController::*)(bool);
using Signal = void (VTDefaultsController::*)();

// The box shows the stored value and follows its changes; a click stores the new one, so the
// file is written and its observers are told.
void bindCheckBox(QCheckBox *box, VTDefaultsController *store, Getter get, Setter set, Signal changed)
{
    box->setChecked((store->*get)());
    QObject::connect(box, &QCheckBox::clicked, store, [store, set](bool checked) { (store->*set)(checked); });
    QObject::connect(store, changed, box, [box, store, get] { box->setChecked((store->*get)()); });
}

} // namespace

void VantorPref::connectSettingsTab()
{
    connect(m_ui->checkNowButton, &QPushButton::clicked, this, [this] { checkForUpdates(m_ui->checkNowButton); });
    connect(m_ui->helpButton, &QPushButton::clicked, this, [this] { help(m_ui->helpButton); });
    connect(m_ui->uninstallButton, &QPushButton::clicked, this, [this] { confirmUninstall(m_ui->uninstallButton); });
}

void VantorPref::bindSettingsControls()
{
    VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
    bindCheckBox(m_ui->visibleCheckBox, store, &VTDefaultsController::visible, &VTDefaultsController::setVisible,
                 &VTDefaultsController::visibleChanged);
    bindCheckBox(m_ui->runAtLoginCheckBox, store, &VTDefaultsController::autorunAtLogin,
                 &VTDefaultsController::setAutorunAtLogin, &VTDefaultsController::autorunAtLoginChanged);
    bindCheckBox(m_ui->checkUpdatesCheckBox, store, &VTDefaultsController::checkForUpdates,
                 &VTDefaultsController::setCheckForUpdates, &VTDefaultsController::checkForUpdatesChanged);
}
