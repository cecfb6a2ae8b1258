#include "QFTableView.h"

QFTableView::QFTableView(QWidget *parent)
    : QTableView(parent)
{
}
