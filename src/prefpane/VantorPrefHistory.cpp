// VantorPref: the folder table and the total saved, shown through the history controller.
#include "VantorPref.h"

#include "QFTableView.h"
#include "VTHistoryController.h"
#include "VTSizeToPrettySizeTransformer.h"
#include "ui_VantorPref.h"

void VantorPref::setUpHistoryController()
{
    VTHistoryController::create();
    VTHistoryController *history = VTHistoryController::sharedHistoryController();
    history->awakeFromNib(foldersTableView);

    QLabel *total = m_ui->totalSavingsTextField;
    auto showTotal = [total, history] {
        total->setText(QStringLiteral("Total saved: %1")
                           .arg(VTSizeToPrettySizeTransformer().transformedValue(history->totalSavings()).toString()));
    };
    showTotal();
    connect(history, &VTHistoryController::totalSavingsChanged, total, showTotal);
}
