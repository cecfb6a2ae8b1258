#pragma once

#include "gui/Alerts.h"

#include <QList>

// Records alerts, sheets (and their windows) and errors instead of showing them, as the shared
// instance for its lifetime. Sheets end at once with their first button.
class RecordingAlerts final : public Alerts
{
public:
    RecordingAlerts() { Alerts::setShared(this); }
    ~RecordingAlerts() override { Alerts::setShared(nullptr); }

    void beginSheet(QWidget *window, const Alert &alert, std::function<void(int)> done) override
    {
        sheets.append(alert);
        sheetWindows.append(window);
        if (done)
            done(0);
    }
    int runModal(const Alert &alert) override
    {
        modals.append(alert);
        return 0;
    }
    void presentError(const PresentableError &error) override { errors.append(error); }
    void beep() override { ++beeps; }

    void clear()
    {
        sheets.clear();
        sheetWindows.clear();
        modals.clear();
        errors.clear();
        beeps = 0;
    }

    QList<Alert> sheets;
    QList<QWidget *> sheetWindows;
    QList<Alert> modals;
    QList<PresentableError> errors;
    int beeps = 0;
};
