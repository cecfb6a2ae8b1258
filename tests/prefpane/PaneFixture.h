#pragma once

#include "gui/Alerts.h"
#include "gui/PreferencePaneHost.h"

#include <QCoreApplication>
#include <QWidget>

// A host that shows the pane's view in a plain window and records what it is asked.
class FakePaneHost : public PreferencePaneHost
{
public:
    void activateIgnoringOtherApps(bool) override {}
    QWidget *mainWindow() const override { return const_cast<QWidget *>(&window); }
    QWidget *keyWindow() const override { return const_cast<QWidget *>(&window); }
    QObject *application() const override { return QCoreApplication::instance(); }
    void terminate(QObject *) override { ++terminations; }

    QWidget window;
    int terminations = 0;
};

// Alerts that record instead of showing.
class RecordingAlerts : public Alerts
{
public:
    RecordingAlerts() { Alerts::setShared(this); }
    ~RecordingAlerts() override { Alerts::setShared(nullptr); }

    void beginSheet(QWidget *window, const Alert &alert, std::function<void(int)>) override
    {
        sheets.append(alert);
        sheetWindows.append(window);
    }
    int runModal(const Alert &alert) override
    {
        modals.append(alert);
        return 0;
    }
    void presentError(const PresentableError &) override {}

    QList<Alert> sheets;
    QList<QWidget *> sheetWindows;
    QList<Alert> modals;
};
