#include "prefpane/VantorPref.h"

#include "platform/Bundle.h"
#include "platform/DistributedNotificationCenter.h"
#include "common/HelperLauncher.h"
#include "common/HelperLoginItem.h"
#include "common/Notifications.h"
#include "gui/PreferencePaneHost.h"
#include "prefpane/QFTableView.h"
#include "common/VTDefaultsController.h"
#include "prefpane/VTHistoryController.h"
#include "common/VTPreferenceCommunicator.h"
#include "ui_VantorPref.h"

#include <QIcon>
#include <QPixmap>

VantorPref::VantorPref(QObject *parent)
    : PreferencePane(parent)
    , m_loginItem(new HelperLoginItem(this))
{
    connect(m_loginItem, &HelperLoginItem::changed, this, &VantorPref::autorunAtLoginChanged, Qt::DirectConnection);
}

VantorPref::~VantorPref() = default;

QString VantorPref::mainNibName() const
{
    return QStringLiteral("VantorPref");
}

QWidget *VantorPref::buildMainView()
{
    auto *view = new QWidget;
    m_ui = std::make_unique<Ui::VantorPref>();
    m_ui->setupUi(view);
    tabView = m_ui->tabView;
    versionNumberTextField = m_ui->versionNumberTextField;
    toggleActiveButton = m_ui->toggleActiveButton;
    iconButton = m_ui->iconButton;
    foldersTableView = m_ui->foldersTableView;
    connect(toggleActiveButton, &QPushButton::clicked, this, [this] { toggleActive(toggleActiveButton); });
    styleMainView();
    loadSheets(view);
    connectSettingsTab();
    // The interface's own objects come with it, before mainViewDidLoad.
    setUpHistoryController();
    setUpFolderEditing();
    return view;
}

void VantorPref::styleMainView()
{
    if (bundle()) {
        const QString icon = bundle()->pathForResource(QStringLiteral("vantor"), QStringLiteral("png"));
        // Read as the PNG it is: left to guess, the reader loads every image-format plugin
        // to ask it, which slowed the first frame.
        if (!icon.isEmpty())
            iconButton->setIcon(QIcon(QPixmap(icon, "PNG")));
    }
    QFont title = m_ui->titleLabel->font();
    title.setPointSizeF(title.pointSizeF() * 1.6);
    title.setBold(true);
    m_ui->titleLabel->setFont(title);
    m_ui->descriptionLabel->setForegroundRole(QPalette::PlaceholderText);
    versionNumberTextField->setForegroundRole(QPalette::PlaceholderText);

    // The switch: a knob that slides over a track, blue while on.
    toggleActiveButton->setStyleSheet(QStringLiteral(
        "QPushButton { background: palette(button); border: 1px solid palette(mid); border-radius: 6px; }"
        "QPushButton:focus { border: 2px solid palette(highlight); }"));
    auto paintTrack = [track = m_ui->switchTrack](bool on) {
        track->setStyleSheet(on ? QStringLiteral("background: palette(highlight); border-radius: 8px;")
                                : QStringLiteral("background: palette(mid); border-radius: 8px;"));
    };
    m_ui->switchTrack->setAttribute(Qt::WA_StyledBackground);
    paintTrack(toggleActiveButton->isChecked());
    connect(toggleActiveButton, &QPushButton::toggled, m_ui->switchTrack, paintTrack);

    // A click on the icon sends up a bubble.
    iconButton->setCursor(Qt::PointingHandCursor);
    connect(iconButton, &QPushButton::clicked, this, &VantorPref::addBubble);
}

void VantorPref::mainViewDidLoad()
{
    versionNumberTextField->setText(bundleVersion());
    // A label with a name of its own is read by that name alone: the name carries the value.
    versionNumberTextField->setAccessibleName(QStringLiteral("Version %1").arg(bundleVersion()));

    // Made now so that both exist before anything else uses them.
    VTDefaultsController::create();
    VTPreferenceCommunicator::create();
    VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();

    if (store->firstRun())
        firstRunInit();

    // A running helper learns the pane's version before anything else reaches it.
    checkRunningHelperVersion();

    // Unconditional: a helper that is running already is handed back, not started twice.
    launchHelper();

    // Re-applied so the helper hears the update choice once per load of the pane.
    store->setCheckForUpdates(store->checkForUpdates());

    auto *center = DistributedNotificationCenter::defaultCenter();
    center->addObserver(this, QLatin1String(Notifications::ShowHistory),
                        [this](const DistributedNotification &) { showHistory(nullptr); });
    center->addObserver(this, QLatin1String(Notifications::RestartingAfterUpdate),
                        [this](const DistributedNotification &) { relaunchSystemPreferences(); });
    if (PreferencePaneHost *h = host()) {
        center->addObserver(h->application(), QLatin1String(Notifications::Quit),
                            [h](const DistributedNotification &) { h->terminate(nullptr); });
    }

    connect(
        store, &VTDefaultsController::visibleChanged, this,
        [this, store] { observeValueForKeyPath(QStringLiteral("visible"), store, {}, this); }, Qt::DirectConnection);

    // Opens the history store now rather than at its first use.
    VTHistoryController::sharedHistoryController()->managedObjectContext();

    // Folders may be dropped on the table, and its rows dragged out as folders.
    foldersTableView->setAcceptDrops(true);
    foldersTableView->viewport()->setAcceptDrops(true);
    foldersTableView->setDragEnabled(true);
    foldersTableView->setDefaultDropAction(Qt::CopyAction);

    // One way: the store drives the login item, never the other way round.
    connect(
        store, &VTDefaultsController::autorunAtLoginChanged, this,
        [this, store] { setAutorunAtLogin(store->autorunAtLogin()); }, Qt::DirectConnection);
    regenerateAutologinItem();

    bindSettingsControls();
}

void VantorPref::didSelect()
{
    if (host())
        host()->activateIgnoringOtherApps(false);
    if (!HelperLauncher::isRunning())
        launchHelper();
    VTDefaultsController *store = VTDefaultsController::sharedDefaultsController();
    setActiveButton(store->helperActive(), false);
    toggleActiveButton->setChecked(store->helperActive());
}

void VantorPref::didUnselect()
{
    // An inactive helper is not left running once the user is done with the pane.
    if (!VTDefaultsController::sharedDefaultsController()->helperActive())
        VTPreferenceCommunicator::sharedCommunicatorController()->notifyHelperShouldQuit();
}

QString VantorPref::bundleVersion() const
{
    // The pane's own bundle, not the host's.
    return bundle() ? bundle()->objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString() : QString();
}

void VantorPref::firstRunInit()
{
    VTDefaultsController::sharedDefaultsController()->setFirstRunDone();
}

void VantorPref::checkRunningHelperVersion()
{
    const QString version = bundleVersion();
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        QLatin1String(Notifications::Version), {{QLatin1String(Notifications::VersionKey), version}});
}

void VantorPref::showHistory(QObject *)
{
    tabView->setCurrentIndex(0);
}

void VantorPref::observeValueForKeyPath(const QString &keyPath, QObject *, const QVariantMap &, void *context)
{
    if (context != this)
        return;
    if (keyPath == QLatin1String("visible"))
        DistributedNotificationCenter::defaultCenter()->postNotificationName(QLatin1String(Notifications::Visible));
}
