#include "prefpane/SheetSession.h"
#include "prefpane/PaneLog.h"

#include <QCloseEvent>
#include <QWidget>

SheetSession::SheetSession(QWidget *sheet, DidEnd didEnd)
    : QObject(sheet)
    , m_didEnd(std::move(didEnd))
{
    sheet->installEventFilter(this);
}

SheetSession *SheetSession::sessionOf(const QWidget *sheet)
{
    return sheet->findChild<SheetSession *>(QString(), Qt::FindDirectChildrenOnly);
}

bool SheetSession::beginSheet(QWidget *sheet, QWidget *window, DidEnd didEnd)
{
    if (!sheet || !window)
        return false;
    if (attachedSheet(window)) {
        qCWarning(lcPane, "a sheet is already shown on this window; %s is not shown", qPrintable(sheet->objectName()));
        return false;
    }
    if (sheet->parentWidget() != window || !sheet->isWindow())
        sheet->setParent(window, Qt::Sheet);
    sheet->setWindowModality(Qt::WindowModal);
    sheet->adjustSize();
    new SheetSession(sheet, std::move(didEnd));

    // Hangs from the top of the window's content, centred, as a sheet does.
    const QPoint top = window->mapToGlobal(QPoint((window->width() - sheet->width()) / 2, 0));
    sheet->move(top);
    sheet->show();
    sheet->raise();
    sheet->activateWindow();
    return true;
}

QWidget *SheetSession::attachedSheet(const QWidget *window)
{
    if (!window)
        return nullptr;
    const auto children = window->findChildren<QWidget *>(QString(), Qt::FindDirectChildrenOnly);
    for (QWidget *child : children) {
        if (child->isWindow() && sessionOf(child))
            return child;
    }
    return nullptr;
}

void SheetSession::endSheet(QWidget *sheet, int returnCode)
{
    SheetSession *session = sheet ? sessionOf(sheet) : nullptr;
    if (!session)
        return;
    const DidEnd didEnd = std::move(session->m_didEnd);
    // Detached at once; deleted later, since this may run inside its own event filter.
    sheet->removeEventFilter(session);
    session->setParent(nullptr);
    session->deleteLater();
    if (didEnd)
        didEnd(sheet, returnCode);
}

bool SheetSession::eventFilter(QObject *watched, QEvent *event)
{
    // Closed from the window manager: ended like a cancel, so the window is free again.
    if (event->type() == QEvent::Close && watched == parent()) {
        event->ignore();
        endSheet(static_cast<QWidget *>(watched));
        return true;
    }
    return QObject::eventFilter(watched, event);
}
