#pragma once

#include "TestEnvironment.h"
#include "gui/PreferencePaneHost.h"
#include "platform/Bundle.h"
#include "prefpane/VantorPref.h"

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

// The pane of a bundle (the build's own by default) loaded into a shown window of its own,
// as the host shows it. For suites that link the pane's objects.
class PaneFixture
{
public:
    explicit PaneFixture(const QString &bundlePath = TestEnvironment::paneBundle())
    {
        host.window = &window;
        pane.initWithBundle(Bundle::bundleWithPath(bundlePath), &host);
        pane.loadMainView()->setParent(&window);
        window.resize(800, 500);
        window.show();
    }

    QWidget window;
    FakePaneHost host;
    VantorPref pane;
};
