#pragma once

#include "FakePaneHost.h"
#include "TestEnvironment.h"
#include "platform/Bundle.h"
#include "prefpane/VantorPref.h"

#include <QWidget>

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
