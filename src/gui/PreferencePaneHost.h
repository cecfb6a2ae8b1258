#pragma once

#include "gui/VantorGuiExport.h"

class QObject;
class QWidget;

// What a pane may ask of the application that hosts it.
class VANTOR_GUI_EXPORT PreferencePaneHost
{
public:
    virtual ~PreferencePaneHost();

    // With flag false the host's window takes focus without being raised above other
    // applications' windows.
    virtual void activateIgnoringOtherApps(bool flag) = 0;
    virtual QWidget *mainWindow() const = 0;
    virtual QWidget *keyWindow() const = 0;
    // The host application object itself (an observer that lives as long as the host).
    virtual QObject *application() const = 0;
    // Quits the host application.
    virtual void terminate(QObject *sender) = 0;
};
