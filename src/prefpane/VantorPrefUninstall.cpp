// VantorPref: uninstalling the product, restarting the host, the sheets and the help page.

#include "prefpane/VantorPref.h"
#include "prefpane/PaneLog.h"

#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "gui/PreferencePaneHost.h"
#include "prefpane/SheetSession.h"
#include "common/VTPreferenceCommunicator.h"
#include "platform/Workspace.h"
#include "ui_RestartSheet.h"
#include "ui_UninstallSheet.h"

#include <QFile>
#include <QFileInfo>
#include <QIcon>
#include <QLabel>
#include <QPushButton>

#include <unistd.h>

QUrl VantorPref::faqAddress()
{
    return QUrl(QStringLiteral("https://www.quillfen.com/vantor/faq/"));
}

void VantorPref::loadSheets(QWidget *owner)
{
    // Windows of their own, kept hidden with the main view until shown on the host's window.
    uninstallSheet = new QWidget(owner, Qt::Sheet);
    Ui::UninstallSheet uninstallUi;
    uninstallUi.setupUi(uninstallSheet);
    connect(uninstallUi.confirmUninstallButton, &QPushButton::clicked, this,
            [this, button = uninstallUi.confirmUninstallButton] { uninstall(button); });
    connect(uninstallUi.cancelUninstallButton, &QPushButton::clicked, this,
            [this, button = uninstallUi.cancelUninstallButton] { cancelSheet(button); });

    restartSheet = new QWidget(owner, Qt::Sheet);
    Ui::RestartSheet restartUi;
    restartUi.setupUi(restartSheet);
    connect(restartUi.restartButton, &QPushButton::clicked, this,
            [this, button = restartUi.restartButton] { restart(button); });

    // The icon the main view has read already: decoding the file a second time slowed the
    // first frame. Taken now, since the restart sheet shows once the bundle is gone.
    if (const QIcon icon = iconButton->icon(); !icon.isNull()) {
        const QPixmap picture = icon.pixmap(64, 64);
        uninstallUi.uninstallIcon->setPixmap(picture);
        restartUi.restartIcon->setPixmap(picture);
    }
    for (QLabel *title : {uninstallUi.uninstallTitle, restartUi.restartTitle}) {
        QFont bold = title->font();
        bold.setBold(true);
        title->setFont(bold);
    }
}

void VantorPref::confirmUninstall(QObject *)
{
    // A bundle this user cannot delete belongs to a system-wide install, which the package
    // manager removes; asked each time, since an administrator may change it meanwhile.
    const QByteArray folder = bundle() ? QFile::encodeName(QFileInfo(bundle()->bundlePath()).path()) : QByteArray();
    const bool removable = folder.isEmpty() || ::access(folder.constData(), W_OK) == 0;
    uninstallSheet->findChild<QLabel *>(QStringLiteral("uninstallText"))->setVisible(removable);
    uninstallSheet->findChild<QLabel *>(QStringLiteral("systemUninstallText"))->setVisible(!removable);
    showCustomSheet(uninstallSheet);
}

void VantorPref::uninstall(QObject *)
{
    endAttachedSheet();
    if (autorunAtLogin())
        setAutorunAtLogin(false);
    // Before the bundle goes: the tool is copied out of the helper inside it.
    relaunchSystemPreferences();
    VTPreferenceCommunicator::sharedCommunicatorController()->notifyHelperShouldQuit();
    removeOwnFiles();
    showCustomSheet(restartSheet);
}

void VantorPref::removeOwnFiles()
{
    // Loaded code keeps running without its files; a failure leaves the bundle and goes on.
    QString error;
    if (bundle() && !FileManager::removeItemAtPath(bundle()->bundlePath(), &error))
        qCWarning(lcPane, "%s", qPrintable(error));
}

void VantorPref::restart(QObject *sender)
{
    endAttachedSheet();
    if (host())
        host()->terminate(sender);
}

void VantorPref::cancelSheet(QObject *)
{
    endAttachedSheet();
}

void VantorPref::cancelSheetAction(QObject *sender)
{
    cancelSheet(sender);
}

void VantorPref::help(QObject *)
{
    Workspace::shared()->openURL(faqAddress());
}

void VantorPref::showCustomSheet(QWidget *sheet)
{
    if (!host())
        return;
    SheetSession::beginSheet(sheet, host()->mainWindow(),
                             [this](QWidget *ended, int returnCode) { didEndSheet(ended, returnCode, nullptr); });
}

void VantorPref::didEndSheet(QWidget *sheet, int, void *)
{
    sheet->hide();
}

void VantorPref::endAttachedSheet()
{
    if (host())
        SheetSession::endSheet(SheetSession::attachedSheet(host()->mainWindow()));
}
