#include "gui/FolderChooser.h"
#include "gui/GuiLog.h"

#include "platform/FileManager.h"

#include <QAbstractItemView>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusReply>
#include <QDBusObjectPath>
#include <QFile>
#include <QFileDialog>
#include <QGuiApplication>
#include <QPointer>
#include <QRandomGenerator>
#include <QUrl>
#include <QWidget>

namespace {

constexpr const char *kPortalService = "org.freedesktop.portal.Desktop";
constexpr const char *kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char *kFileChooserInterface = "org.freedesktop.portal.FileChooser";
constexpr const char *kRequestInterface = "org.freedesktop.portal.Request";

FolderChooser::Factory &factory()
{
    static FolderChooser::Factory f;
    return f;
}

// Qt's widget dialog picks one directory in directory mode; its views are switched to
// multi-selection so several can be chosen.
class WidgetFolderChooser final : public FolderChooser
{
public:
    using FolderChooser::FolderChooser;

    void beginSheetForDirectory(QWidget *window, const QString &directory, std::function<void(int)> done) override
    {
        auto *dialog = new QFileDialog(window, QString(), directory);
        dialog->setOption(QFileDialog::DontUseNativeDialog);
        dialog->setFileMode(QFileDialog::Directory);
        dialog->setOption(QFileDialog::ShowDirsOnly);
        for (const char *name : {"listView", "treeView"}) {
            if (auto *view = dialog->findChild<QAbstractItemView *>(QLatin1String(name)))
                view->setSelectionMode(QAbstractItemView::ExtendedSelection);
        }
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->setWindowModality(window ? Qt::WindowModal : Qt::ApplicationModal);
        QPointer<WidgetFolderChooser> self(this);
        connect(dialog, &QFileDialog::finished, this, [self, dialog, done](int result) {
            if (!self)
                return;
            QList<QByteArray> paths;
            if (result == QDialog::Accepted) {
                for (const QString &path : dialog->selectedFiles())
                    paths.append(QFile::encodeName(path));
            }
            self->setFilenames(paths);
            if (done)
                done(result == QDialog::Accepted ? OK : Cancel);
        });
        dialog->open();
    }
};

// The freedesktop portal's FileChooser.OpenFile with directory and multiple set; the answer
// comes as the Response signal of a request object.
class PortalFolderChooser final : public FolderChooser
{
    Q_OBJECT
public:
    using FolderChooser::FolderChooser;

    static bool available()
    {
        QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
        if (!bus)
            return false;
        if (bus->isServiceRegistered(QLatin1String(kPortalService)))
            return true;
        const QDBusReply<QStringList> activatable = bus->call(QStringLiteral("ListActivatableNames"));
        return activatable.isValid() && activatable.value().contains(QLatin1String(kPortalService));
    }

    void beginSheetForDirectory(QWidget *window, const QString &directory, std::function<void(int)> done) override
    {
        m_window = window;
        m_directory = directory;
        m_done = std::move(done);
        QDBusConnection bus = QDBusConnection::sessionBus();
        const QString token = QStringLiteral("vantor%1").arg(QRandomGenerator::global()->generate());
        QString sender = bus.baseService().mid(1);
        sender.replace(u'.', u'_');
        // Subscribed before the call, so an answer cannot come before we listen.
        listen(QStringLiteral("%1/request/%2/%3").arg(QLatin1String(kPortalPath), sender, token));

        QDBusMessage call =
            QDBusMessage::createMethodCall(QLatin1String(kPortalService), QLatin1String(kPortalPath),
                                           QLatin1String(kFileChooserInterface), QStringLiteral("OpenFile"));
        const QVariantMap options{
            {QStringLiteral("handle_token"), token},
            {QStringLiteral("modal"), true},
            {QStringLiteral("multiple"), true},
            {QStringLiteral("directory"), true},
            {QStringLiteral("current_folder"), QByteArray(QFile::encodeName(directory)).append('\0')},
        };
        call << parentWindow(window) << QString() << options;
        auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), this);
        connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *w) {
            w->deleteLater();
            const QDBusPendingReply<QDBusObjectPath> reply = *w;
            if (reply.isError()) {
                qCWarning(lcGui, "the desktop portal failed (%s), using the built-in dialog",
                          qPrintable(reply.error().message()));
                fallBack();
                return;
            }
            // Older portals choose the request path themselves.
            if (reply.value().path() != m_handle)
                listen(reply.value().path());
        });
    }

private Q_SLOTS:
    void response(uint code, const QVariantMap &results)
    {
        stopListening();
        QList<QByteArray> paths;
        if (code == 0) {
            for (const QString &uri : results.value(QStringLiteral("uris")).toStringList()) {
                const QByteArray path = FileManager::fileSystemRepresentation(QUrl::fromEncoded(uri.toLatin1()));
                if (!path.isEmpty())
                    paths.append(path);
            }
        }
        setFilenames(paths);
        if (m_done)
            m_done(code == 0 ? OK : Cancel);
    }

private:
    static QString parentWindow(QWidget *window)
    {
        if (window && QGuiApplication::platformName() == QLatin1String("xcb"))
            return QStringLiteral("x11:%1").arg(window->window()->winId(), 0, 16);
        return QString();
    }

    void listen(const QString &handle)
    {
        stopListening();
        m_handle = handle;
        QDBusConnection::sessionBus().connect(QLatin1String(kPortalService), m_handle, QLatin1String(kRequestInterface),
                                              QStringLiteral("Response"), this, SLOT(response(uint, QVariantMap)));
    }

    void stopListening()
    {
        if (m_handle.isEmpty())
            return;
        QDBusConnection::sessionBus().disconnect(QLatin1String(kPortalService), m_handle,
                                                 QLatin1String(kRequestInterface), QStringLiteral("Response"), this,
                                                 SLOT(response(uint, QVariantMap)));
        m_handle.clear();
    }

    void fallBack()
    {
        stopListening();
        auto *widget = new WidgetFolderChooser(this);
        widget->beginSheetForDirectory(m_window, m_directory, [this, widget](int code) {
            setFilenames(widget->filenames());
            if (m_done)
                m_done(code);
        });
    }

    QPointer<QWidget> m_window;
    QString m_directory;
    QString m_handle;
    std::function<void(int)> m_done;
};

} // namespace

FolderChooser *FolderChooser::openPanel(QObject *parent)
{
    if (factory())
        return factory()(parent);
    if (PortalFolderChooser::available())
        return new PortalFolderChooser(parent);
    return new WidgetFolderChooser(parent);
}

void FolderChooser::setFactory(Factory f)
{
    factory() = std::move(f);
}

#include "FolderChooser.moc"
