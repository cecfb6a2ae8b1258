// VantorPref: editing the folder list with the chooser, the remove button and drops.
#include "prefpane/VantorPref.h"
#include "prefpane/PaneLog.h"

#include "common/FolderRequest.h"
#include "platform/FileManager.h"
#include "gui/FolderChooser.h"
#include "prefpane/QFTableView.h"
#include "prefpane/VTHistoryController.h"
#include "ui_VantorPref.h"

#include <QDir>
#include <QDropEvent>
#include <QMimeData>
#include <QUrl>

namespace {

constexpr const char *kFilenamesType = "text/uri-list";

void refuseUndecodablePaths(const QList<QByteArray> &paths)
{
    for (const QByteArray &path : paths)
        qCWarning(lcPane, "%s", qPrintable(FolderRequest::undecodableMessage(path)));
}

} // namespace

void VantorPref::setUpFolderEditing()
{
    foldersTableView->setDataSource(this);
    connect(m_ui->addFolderButton, &QPushButton::clicked, this, [this] { addFolder(m_ui->addFolderButton); });
    connect(m_ui->removeFolderButton, &QPushButton::clicked, this, [this] { removeFolder(m_ui->removeFolderButton); });
}

void VantorPref::addFolder(QObject *)
{
    FolderChooser *panel = FolderChooser::openPanel(this);
    QWidget *window = foldersTableView ? foldersTableView->window() : nullptr;
    panel->beginSheetForDirectory(window, QDir::homePath(), [this, panel](int returnCode) {
        addFolderPanelDidEnd(panel, returnCode, nullptr);
        panel->deleteLater();
    });
}

void VantorPref::addFolderPanelDidEnd(FolderChooser *panel, int returnCode, void *)
{
    if (returnCode != FolderChooser::OK)
        return;
    // Passed on as chosen: duplicates are the helper's business.
    QList<QByteArray> undecodable;
    const QStringList folders = FolderRequest::decodablePaths(panel->filenames(), &undecodable);
    refuseUndecodablePaths(undecodable);
    if (!folders.isEmpty())
        VTHistoryController::sharedHistoryController()->addFolders(folders);
}

void VantorPref::removeFolder(QObject *)
{
    VTHistoryController::sharedHistoryController()->removeFolders();
}

std::optional<QStringList> VantorPref::foldersInPasteboard(const QMimeData *pasteboard, QList<QByteArray> *undecodable)
{
    QList<QByteArray> paths;
    if (pasteboard && pasteboard->hasFormat(QLatin1String(kFilenamesType))) {
        for (const QUrl &url : pasteboard->urls()) {
            const QByteArray path = FileManager::fileSystemRepresentation(url);
            if (!path.isEmpty())
                paths.append(path);
        }
    }
    if (paths.isEmpty())
        return std::nullopt;
    return FolderRequest::decodablePaths(FolderRequest::existingDirectories(paths), undecodable);
}

Qt::DropAction VantorPref::tableViewValidateDrop(QFTableView *tableView, const QDropEvent *info, int,
                                                 QFTableViewDataSource::DropOperation)
{
    // A folder whose path is refused still lets the drop happen, so its refusal is reported.
    QList<QByteArray> undecodable;
    const std::optional<QStringList> folders = foldersInPasteboard(info->mimeData(), &undecodable);
    if (!folders || (folders->isEmpty() && undecodable.isEmpty()))
        return Qt::IgnoreAction;
    // Folders join the list, not a place in it: the drop is on the whole table.
    tableView->setDropRow(-1, QFTableViewDataSource::DropOn);
    return Qt::CopyAction;
}

bool VantorPref::tableViewAcceptDrop(QFTableView *tableView, const QDropEvent *info, int,
                                     QFTableViewDataSource::DropOperation)
{
    if (info->source() && (info->source() == tableView || info->source() == tableView->viewport()))
        return false;
    const QMimeData *pasteboard = info->mimeData();
    if (!pasteboard || !pasteboard->hasFormat(QLatin1String(kFilenamesType)))
        return false;
    QList<QByteArray> undecodable;
    const std::optional<QStringList> folders = foldersInPasteboard(pasteboard, &undecodable);
    refuseUndecodablePaths(undecodable);
    if (!folders || folders->isEmpty())
        return false;
    VTHistoryController::sharedHistoryController()->addFolders(*folders);
    tableView->reloadData();
    return true;
}
