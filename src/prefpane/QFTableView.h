#pragma once

#include <QList>
#include <QTableView>

class QDropEvent;
class QStyleOptionViewItem;

// What a folder table asks of its delegate: the cells' set-up before drawing and the
// removal of the selected rows by keyboard.
class QFTableViewDelegate
{
public:
    virtual ~QFTableViewDelegate() = default;
    virtual void tableViewWillDisplayCell(QTableView *tableView, QStyleOptionViewItem &cell, int column, int row) = 0;
    virtual void tableviewRemoveSelectedRowIndexes(QTableView *tableView, const QList<int> &rowIndexes) = 0;
};

class QFTableView;

// The source the table asks about drops.
class QFTableViewDataSource
{
public:
    enum DropOperation { DropOn, DropAbove };

    virtual ~QFTableViewDataSource() = default;
    // The action the drop would take; Qt::IgnoreAction refuses it.
    virtual Qt::DropAction tableViewValidateDrop(QFTableView *tableView, const QDropEvent *info, int proposedRow,
                                                 DropOperation proposedDropOperation) = 0;
    virtual bool tableViewAcceptDrop(QFTableView *tableView, const QDropEvent *info, int row,
                                     DropOperation dropOperation) = 0;
};

// The folder table: the delete keys remove the selected rows through the delegate, and
// drops are decided by the data source. Neither is owned.
class QFTableView : public QTableView
{
    Q_OBJECT
public:
    explicit QFTableView(QWidget *parent = nullptr);

    void setDelegate(QFTableViewDelegate *delegate) { m_delegate = delegate; }
    QFTableViewDelegate *delegate() const { return m_delegate; }
    void setDataSource(QFTableViewDataSource *dataSource) { m_dataSource = dataSource; }
    QFTableViewDataSource *dataSource() const { return m_dataSource; }

    // The first selected row, or -1.
    int selectedRow() const;
    QList<int> selectedRowIndexes() const;

    // Retargets the drop being validated; row -1 with DropOn is the whole table.
    void setDropRow(int row, QFTableViewDataSource::DropOperation dropOperation);
    int dropRow() const { return m_dropRow; }
    QFTableViewDataSource::DropOperation dropOperation() const { return m_dropOperation; }
    bool isDropTarget() const { return m_dropTarget; }

    void reloadData();
    void keyDown(QKeyEvent *event);

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dragMoveEvent(QDragMoveEvent *event) override;
    void dragLeaveEvent(QDragLeaveEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void validateDrop(QDragMoveEvent *event);
    void setDropTarget(bool target);

    QFTableViewDelegate *m_delegate = nullptr;
    QFTableViewDataSource *m_dataSource = nullptr;
    int m_dropRow = -1;
    QFTableViewDataSource::DropOperation m_dropOperation = QFTableViewDataSource::DropOn;
    bool m_dropTarget = false;
};
