#pragma once

#include <QString>
#include <QStringList>

#include <functional>

#include "gui/VantorGuiExport.h"
#include "platform/PresentableError.h"

class QWidget;

struct Alert {
    QString messageText;
    QString informativeText;
    QStringList buttons; // first is the default; empty means a single "OK"
};

// Alerts shown to the user. Behind an interface so tests can record what a person would see.
class VANTOR_GUI_EXPORT Alerts
{
public:
    virtual ~Alerts();

    // Window-modal on window (application-modal when window is null); does not wait.
    // done receives the index of the button pressed.
    virtual void beginSheet(QWidget *window, const Alert &alert, std::function<void(int)> done = {}) = 0;
    // Application-modal; returns the index of the button pressed.
    virtual int runModal(const Alert &alert) = 0;
    virtual void presentError(const PresentableError &error) = 0;
    // The system beep: "nothing happened".
    virtual void beep();

    static Alerts *shared();
    // Replaces the shared instance (tests); null restores the message-box one.
    static void setShared(Alerts *alerts);
};
