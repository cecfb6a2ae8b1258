#pragma once

#include "gui/PreferencePane.h"
#include "prefpane/QFTableView.h"

#include <QPointF>
#include <QPointer>
#include <QUrl>
#include <QVariantMap>

#include <memory>
#include <optional>

class BubbleLayer;
class QAbstractAnimation;
class FolderChooser;
class HelperLoginItem;
class QMimeData;
class QVariantAnimation;
class QLabel;
class QPushButton;
class QTabWidget;
class QWidget;

namespace Ui {
class VantorPref;
}

// The Vantor preference pane: switches the helper on and off, edits the folders it keeps
// compressed and shows what was saved. Split by concern over several source files.
class VantorPref : public PreferencePane, public QFTableViewDataSource
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID PreferencePane_iid FILE "VantorPref.json")
    Q_PROPERTY(bool autorunAtLogin READ autorunAtLogin WRITE setAutorunAtLogin NOTIFY autorunAtLoginChanged)

public:
    Q_INVOKABLE explicit VantorPref(QObject *parent = nullptr);
    ~VantorPref() override;

    QString mainNibName() const override;
    void mainViewDidLoad() override;
    void didSelect() override;
    void didUnselect() override;

    void firstRunInit();
    void checkRunningHelperVersion();
    void showHistory(QObject *sender);
    // Key-value observation callback: acts only when context is this pane.
    void observeValueForKeyPath(const QString &keyPath, QObject *object, const QVariantMap &change, void *context);

    // Helper process control.
    void launchHelper();
    void warnOnWrongHelperPermissions();
    // Test-only: lets the next launch warn again, as in a new run of the host.
    static void forgetHelperPermissionsWarning();
    void toggleActive(QObject *sender);
    void setActiveButton(bool active, bool animated);
    void checkForUpdates(QObject *sender);
    void relaunchSystemPreferences();

    // Editing the folder list (VantorPrefFolders.cpp).
    void addFolder(QObject *sender);
    void addFolderPanelDidEnd(FolderChooser *panel, int returnCode, void *contextInfo);
    void removeFolder(QObject *sender);
    // The dropped paths that are existing directories; nullopt when it holds no file paths.
    // Directories whose paths are not UTF-8 are left out and listed in undecodable.
    static std::optional<QStringList> foldersInPasteboard(const QMimeData *pasteboard,
                                                          QList<QByteArray> *undecodable = nullptr);
    Qt::DropAction tableViewValidateDrop(QFTableView *tableView, const QDropEvent *info, int proposedRow,
                                         QFTableViewDataSource::DropOperation proposedDropOperation) override;
    bool tableViewAcceptDrop(QFTableView *tableView, const QDropEvent *info, int row,
                             QFTableViewDataSource::DropOperation dropOperation) override;

    // The helper's entry in the login-item list (VantorPrefLoginItem.cpp, kept by HelperLoginItem).
    bool autorunAtLogin() const;
    void setAutorunAtLogin(bool autorun);
    void regenerateAutologinItem();

    // Uninstall, restart, the sheets and help (VantorPrefUninstall.cpp).
    void confirmUninstall(QObject *sender);
    void uninstall(QObject *sender);
    void removeOwnFiles();
    void restart(QObject *sender);
    void cancelSheet(QObject *sender);
    void cancelSheetAction(QObject *sender);
    void help(QObject *sender);
    void showCustomSheet(QWidget *sheet);
    void didEndSheet(QWidget *sheet, int returnCode, void *contextInfo);
    // The product's FAQ page, opened by help.
    static QUrl faqAddress();

    void addBubble();
    void animateBubbleLayer(BubbleLayer *layer);
    QVariantAnimation *bubbleAnimation();
    QVariantAnimation *opacityAnimation();
    void animationDidStop(QAbstractAnimation *animation, bool finished);
    void popBubbles(QObject *sender);
    // The transparent layer above the icon that holds its bubbles.
    QWidget *iconLayer();

    // Interface outlets, owned by the main view.
    QTabWidget *tabView = nullptr;
    QLabel *versionNumberTextField = nullptr;
    QPushButton *toggleActiveButton = nullptr;
    QPushButton *iconButton = nullptr;
    QFTableView *foldersTableView = nullptr;
    QWidget *uninstallSheet = nullptr;
    QWidget *restartSheet = nullptr;

Q_SIGNALS:
    // Only when the login-item list was really written.
    void autorunAtLoginChanged();

protected:
    QWidget *buildMainView() override;

private:
    QString bundleVersion() const;
    void styleMainView();
    QPointF iconLayerPoint(const QPointF &point);
    void setUpHistoryController();
    void setUpFolderEditing();
    void loadSheets(QWidget *owner);
    void endAttachedSheet();
    void connectSettingsTab();
    void bindSettingsControls();

    std::unique_ptr<Ui::VantorPref> m_ui;
    QPointer<QWidget> m_iconLayer;
    HelperLoginItem *m_loginItem;
};
