// Loaded into a real host by Qt (QT_QPA_GENERIC_PLUGINS=vantortestdriver) so a test can press
// its buttons: reads "click <objectName>" and "visible <objectName>" lines on standard input
// and answers on standard output.

#include <QAbstractButton>
#include <QApplication>
#include <QGenericPlugin>
#include <QSocketNotifier>
#include <QWidget>

#include <cstdio>
#include <unistd.h>

namespace {

class Driver : public QObject
{
public:
    Driver()
        : m_notifier(new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this))
    {
        connect(m_notifier, &QSocketNotifier::activated, this, &Driver::readCommands);
    }

private:
    void readCommands()
    {
        char buffer[512];
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            m_notifier->setEnabled(false);
            return;
        }
        m_pending.append(buffer, n);
        for (qsizetype end; (end = m_pending.indexOf('\n')) >= 0;) {
            const QList<QByteArray> command = m_pending.left(end).split(' ');
            m_pending.remove(0, end + 1);
            run(command.value(0), QString::fromUtf8(command.value(1)));
        }
    }

    void run(const QByteArray &verb, const QString &name)
    {
        QWidget *widget = nullptr;
        for (QWidget *w : QApplication::allWidgets()) {
            if (w->objectName() == name)
                widget = w;
        }
        if (verb == "click") {
            auto *button = qobject_cast<QAbstractButton *>(widget);
            reply(QStringLiteral("%1 %2").arg(button ? QStringLiteral("clicked") : QStringLiteral("no"), name));
            if (button)
                button->click();
        } else if (verb == "visible") {
            reply(QStringLiteral("visible %1 %2").arg(name).arg(widget && widget->isVisible() ? 1 : 0));
        }
    }

    static void reply(const QString &line)
    {
        std::printf("driver: %s\n", qPrintable(line));
        std::fflush(stdout);
    }

    QSocketNotifier *m_notifier;
    QByteArray m_pending;
};

class DriverPlugin : public QGenericPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QGenericPluginFactoryInterface_iid FILE "driver.json")
public:
    QObject *create(const QString &, const QString &) override { return new Driver; }
};

} // namespace

#include "DriverPlugin.moc"
