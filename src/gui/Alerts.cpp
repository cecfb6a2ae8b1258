#include "gui/Alerts.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QPointer>

namespace {

QMessageBox *makeBox(QWidget *parent, const Alert &alert)
{
    auto *box = new QMessageBox(parent);
    box->setIcon(QMessageBox::Warning);
    box->setText(alert.messageText);
    box->setInformativeText(alert.informativeText);
    const QStringList buttons = alert.buttons.isEmpty() ? QStringList{QStringLiteral("OK")} : alert.buttons;
    for (int i = 0; i < buttons.size(); ++i) {
        QPushButton *b = box->addButton(buttons.at(i), i == 0 ? QMessageBox::AcceptRole : QMessageBox::RejectRole);
        b->setProperty("vantorIndex", i);
        if (i == 0)
            box->setDefaultButton(b);
    }
    return box;
}

int indexOf(QMessageBox *box)
{
    QAbstractButton *clicked = box->clickedButton();
    return clicked ? clicked->property("vantorIndex").toInt() : 0;
}

class MessageBoxAlerts final : public Alerts
{
public:
    void beginSheet(QWidget *window, const Alert &alert, std::function<void(int)> done) override
    {
        QMessageBox *box = makeBox(window, alert);
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->setWindowModality(window ? Qt::WindowModal : Qt::ApplicationModal);
        QObject::connect(box, &QMessageBox::finished, box, [box, done] {
            if (done)
                done(indexOf(box));
        });
        box->open();
    }

    int runModal(const Alert &alert) override
    {
        QMessageBox *box = makeBox(nullptr, alert);
        box->exec();
        const int index = indexOf(box);
        delete box;
        return index;
    }

    void presentError(const PresentableError &error) override
    {
        runModal({error.localizedDescription, error.failureReason, {}});
    }
};

Alerts *g_shared = nullptr;

} // namespace

Alerts::~Alerts() = default;

void Alerts::beep()
{
    QApplication::beep();
}

Alerts *Alerts::shared()
{
    static MessageBoxAlerts messageBoxes;
    return g_shared ? g_shared : &messageBoxes;
}

void Alerts::setShared(Alerts *alerts)
{
    g_shared = alerts;
}
