// VantorPref: the folder table and the total saved, shown through the history controller.
#include "prefpane/VantorPref.h"

#include "prefpane/QFTableView.h"
#include "prefpane/VTFoldersCell.h"
#include "prefpane/VTHistoryController.h"
#include "prefpane/VTPathCell.h"
#include "prefpane/VTSavingsCell.h"
#include "prefpane/VTSizeToPrettySizeTransformer.h"
#include "prefpane/VTStatusCell.h"
#include "ui_VantorPref.h"

#include <QHeaderView>

namespace {

enum Column { FolderColumn, PathColumn, StatusColumn, SavingsColumn };

// The columns as the interface lays them out: name and path share what the fixed-width
// status and savings leave; a row holds a 24-pixel icon with room above and below.
void layOutFoldersTable(QFTableView *table)
{
    table->setItemDelegateForColumn(FolderColumn, new VTFoldersCell(table));
    table->setItemDelegateForColumn(PathColumn, new VTPathCell(table));
    table->setItemDelegateForColumn(StatusColumn, new VTStatusCell(table));
    table->setItemDelegateForColumn(SavingsColumn, new VTSavingsCell(table));

    table->setShowGrid(false);
    table->setWordWrap(false);
    table->setAlternatingRowColors(true);
    table->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    table->setFocusPolicy(Qt::StrongFocus);
    table->verticalHeader()->hide();
    table->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    table->verticalHeader()->setDefaultSectionSize(28);

    QHeaderView *header = table->horizontalHeader();
    header->setMinimumSectionSize(40);
    header->setSectionResizeMode(FolderColumn, QHeaderView::Interactive);
    header->setSectionResizeMode(PathColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(StatusColumn, QHeaderView::Fixed);
    header->setSectionResizeMode(SavingsColumn, QHeaderView::Fixed);
    header->resizeSection(FolderColumn, 150);
    header->resizeSection(StatusColumn, 56);
    header->resizeSection(SavingsColumn, 76);
}

} // namespace

void VantorPref::setUpHistoryController()
{
    VTHistoryController::create();
    VTHistoryController *history = VTHistoryController::sharedHistoryController();
    history->awakeFromNib(foldersTableView);
    layOutFoldersTable(foldersTableView);

    // No accessible name of its own: a screen reader reads the text, figure included.
    QLabel *total = m_ui->totalSavingsTextField;
    auto showTotal = [total, history] {
        total->setText(QStringLiteral("Total saved: %1")
                           .arg(VTSizeToPrettySizeTransformer().transformedValue(history->totalSavings()).toString()));
    };
    showTotal();
    connect(history, &VTHistoryController::totalSavingsChanged, total, showTotal);
}
