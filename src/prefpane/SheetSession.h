#pragma once

#include <QObject>

#include <functional>

class QWidget;

// A window shown as a sheet on another window: window-modal, one at a time, until it is
// ended with a return code that reaches the method given when it began. The session lives
// on the sheet, so a window's attached sheet is read from the window itself.
class SheetSession : public QObject
{
    Q_OBJECT
public:
    using DidEnd = std::function<void(QWidget *sheet, int returnCode)>;

    // Attaches sheet to window (made a window of its own there, window-modal) and shows it.
    // False, showing nothing, when window has a sheet already.
    static bool beginSheet(QWidget *sheet, QWidget *window, DidEnd didEnd);
    // The sheet begun on window and not yet ended, or null.
    static QWidget *attachedSheet(const QWidget *window);
    // Detaches sheet and calls its end method; the sheet stays shown until that orders it out.
    static void endSheet(QWidget *sheet, int returnCode = 0);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    SheetSession(QWidget *sheet, DidEnd didEnd);
    static SheetSession *sessionOf(const QWidget *sheet);

    DidEnd m_didEnd;
};
