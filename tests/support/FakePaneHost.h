#pragma once

#include "gui/PreferencePaneHost.h"

#include <QCoreApplication>
#include <QList>
#include <QWidget>

// Stands in for the hosting application; records what the pane asks of it.
class FakePaneHost : public PreferencePaneHost
{
public:
    void activateIgnoringOtherApps(bool flag) override { activations.append(flag); }
    QWidget *mainWindow() const override { return window; }
    QWidget *keyWindow() const override { return window; }
    QObject *application() const override { return QCoreApplication::instance(); }
    void terminate(QObject *) override { ++terminations; }

    QWidget *window = nullptr;
    QList<bool> activations;
    int terminations = 0;
};
