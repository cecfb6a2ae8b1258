#include "host/HeadlessAlerts.h"

#include "host/HostLog.h"

#include <QTimer>

namespace {

void report(const QString &title, const QString &text)
{
    QString line = title;
    if (!text.isEmpty())
        line += QStringLiteral(": ") + QString(text).replace(u'\n', u' ');
    qCWarning(lcHost, "alert: %s", qPrintable(line));
}

} // namespace

void HeadlessAlerts::beginSheet(QWidget *, const Alert &alert, std::function<void(int)> done)
{
    report(alert.messageText, alert.informativeText);
    if (done)
        QTimer::singleShot(0, [done] { done(0); });
}

int HeadlessAlerts::runModal(const Alert &alert)
{
    report(alert.messageText, alert.informativeText);
    return 0;
}

void HeadlessAlerts::presentError(const PresentableError &error)
{
    report(error.localizedDescription, error.failureReason);
}
