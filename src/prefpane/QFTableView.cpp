#include "prefpane/QFTableView.h"

#include "gui/Alerts.h"

#include <QDragMoveEvent>
#include <QItemSelectionModel>
#include <QKeyEvent>
#include <QPainter>

#include <algorithm>

QFTableView::QFTableView(QWidget *parent)
    : QTableView(parent)
{
    // The data source's retargeting is drawn instead of the row indicator.
    setDropIndicatorShown(false);
}

int QFTableView::selectedRow() const
{
    const QList<int> rows = selectedRowIndexes();
    return rows.isEmpty() ? -1 : rows.first();
}

QList<int> QFTableView::selectedRowIndexes() const
{
    QList<int> rows;
    if (!selectionModel())
        return rows;
    for (const QModelIndex &index : selectionModel()->selectedRows())
        rows.append(index.row());
    std::sort(rows.begin(), rows.end());
    return rows;
}

void QFTableView::setDropRow(int row, QFTableViewDataSource::DropOperation dropOperation)
{
    m_dropRow = row;
    m_dropOperation = dropOperation;
    viewport()->update();
}

void QFTableView::reloadData()
{
    viewport()->update();
}

void QFTableView::keyPressEvent(QKeyEvent *event)
{
    keyDown(event);
}

void QFTableView::keyDown(QKeyEvent *event)
{
    // By key, not text: with some modifiers held the text is empty.
    const int key = event->key();
    if (key != Qt::Key_Backspace && key != Qt::Key_Delete) {
        QTableView::keyPressEvent(event);
        return;
    }
    event->accept();
    if (selectedRow() >= 0 && m_delegate)
        m_delegate->tableviewRemoveSelectedRowIndexes(this, selectedRowIndexes());
    else
        Alerts::shared()->beep();
}

void QFTableView::dragEnterEvent(QDragEnterEvent *event)
{
    if (!m_dataSource) {
        QTableView::dragEnterEvent(event);
        return;
    }
    validateDrop(event);
}

void QFTableView::dragMoveEvent(QDragMoveEvent *event)
{
    if (!m_dataSource) {
        QTableView::dragMoveEvent(event);
        return;
    }
    validateDrop(event);
}

void QFTableView::dragLeaveEvent(QDragLeaveEvent *event)
{
    setDropTarget(false);
    QTableView::dragLeaveEvent(event);
}

void QFTableView::dropEvent(QDropEvent *event)
{
    if (!m_dataSource) {
        QTableView::dropEvent(event);
        return;
    }
    setDropTarget(false);
    if (m_dataSource->tableViewAcceptDrop(this, event, m_dropRow, m_dropOperation)) {
        event->setDropAction(Qt::CopyAction);
        event->accept();
    } else {
        event->ignore();
    }
}

void QFTableView::validateDrop(QDragMoveEvent *event)
{
    // Proposed like a row drop: on a row's middle, else above the nearest row.
    const QPoint pos = event->position().toPoint();
    const QModelIndex index = indexAt(pos);
    int row = model() ? model()->rowCount() : 0;
    QFTableViewDataSource::DropOperation operation = QFTableViewDataSource::DropAbove;
    if (index.isValid()) {
        row = index.row();
        const QRect rect = visualRect(index);
        const int margin = rect.height() / 4;
        if (pos.y() > rect.top() + margin && pos.y() < rect.bottom() - margin)
            operation = QFTableViewDataSource::DropOn;
        else if (pos.y() >= rect.bottom() - margin)
            row += 1;
    }
    m_dropRow = row;
    m_dropOperation = operation;
    const Qt::DropAction action = m_dataSource->tableViewValidateDrop(this, event, row, operation);
    if (action == Qt::IgnoreAction) {
        setDropTarget(false);
        event->ignore();
        return;
    }
    event->setDropAction(action);
    event->accept();
    setDropTarget(true);
}

void QFTableView::setDropTarget(bool target)
{
    if (m_dropTarget == target)
        return;
    m_dropTarget = target;
    viewport()->update();
}

void QFTableView::paintEvent(QPaintEvent *event)
{
    QTableView::paintEvent(event);
    if (!m_dropTarget)
        return;
    QPainter painter(viewport());
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(palette().color(QPalette::Highlight), 2));
    painter.setBrush(Qt::NoBrush);
    if (m_dropRow < 0) {
        painter.drawRect(QRectF(viewport()->rect()).adjusted(1, 1, -1, -1));
        return;
    }
    const QModelIndex first = model() ? model()->index(m_dropRow, 0) : QModelIndex();
    if (!first.isValid())
        return;
    const QRect rowRect = visualRect(first).united(visualRect(model()->index(m_dropRow, model()->columnCount() - 1)));
    if (m_dropOperation == QFTableViewDataSource::DropOn)
        painter.drawRect(QRectF(rowRect).adjusted(1, 1, -1, -1));
    else
        painter.drawLine(rowRect.topLeft(), rowRect.topRight());
}
