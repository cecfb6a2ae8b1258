// The history store lives in the widget-free common library; its alerts are shown through
// Alerts as soon as this library is loaded into a process.
#include "gui/Alerts.h"
#include "common/HistoryStore.h"

namespace {

const bool g_installed = [] {
    HistoryStore::setAlerts({
        [](const QString &messageText, const QString &informativeText) {
            Alerts::shared()->runModal({messageText, informativeText, {QStringLiteral("OK")}});
        },
        [](const PresentableError &error) {
            Alerts::shared()->presentError({error.domain, error.code, error.localizedDescription, error.failureReason});
        },
    });
    return true;
}();

} // namespace
