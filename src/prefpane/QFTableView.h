#pragma once

#include <QTableView>

// The folder table.
class QFTableView : public QTableView
{
    Q_OBJECT
public:
    explicit QFTableView(QWidget *parent = nullptr);
};
