#pragma once

#include "gui/Alerts.h"

// Alerts for a run nobody watches (--screenshot): each is written as one line on standard
// error and answered with its default button, so start-up completes and the window renders.
class HeadlessAlerts : public Alerts
{
public:
    void beginSheet(QWidget *window, const Alert &alert, std::function<void(int)> done) override;
    int runModal(const Alert &alert) override;
    void presentError(const PresentableError &error) override;
};
