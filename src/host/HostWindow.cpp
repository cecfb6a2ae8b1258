#include "host/HostWindow.h"

#include "gui/PreferencePane.h"

#include <QApplication>
#include <QEvent>
#include <QLabel>
#include <QTimer>
#include <QWindowStateChangeEvent>

HostWindow::HostWindow(QWidget *parent)
    : QMainWindow(parent)
{
    setWindowTitle(QStringLiteral("Vantor"));
    setWindowIcon(QIcon::fromTheme(QStringLiteral("vantor")));
}

void HostWindow::showPane(PreferencePane *pane)
{
    m_pane = pane;
    QWidget *view = pane->loadMainView();
    setCentralWidget(view);
    view->installEventFilter(this);
    pane->mainViewDidLoad();
}

void HostWindow::showNoPane(const QStringList &searched)
{
    auto *label = new QLabel(this);
    label->setWordWrap(true);
    label->setAlignment(Qt::AlignCenter);
    label->setMargin(32);
    label->setTextFormat(Qt::PlainText);
    label->setText(
        tr("Vantor is not installed.\n\nNo Vantor preference pane was found in:\n%1").arg(searched.join(u'\n')));
    label->setAccessibleName(tr("Vantor is not installed"));
    label->installEventFilter(this);
    setCentralWidget(label);
    resize(560, 300);
}

void HostWindow::activateIgnoringOtherApps(bool flag)
{
    // Without the flag the window takes focus but is not pulled above other applications.
    if (flag)
        raise();
    activateWindow();
}

QWidget *HostWindow::mainWindow() const
{
    return const_cast<HostWindow *>(this);
}

QWidget *HostWindow::keyWindow() const
{
    QWidget *active = QApplication::activeWindow();
    return active ? active : const_cast<HostWindow *>(this);
}

QObject *HostWindow::application() const
{
    return QCoreApplication::instance();
}

void HostWindow::terminate(QObject *)
{
    QCoreApplication::quit();
}

void HostWindow::select()
{
    if (m_selected || !m_pane)
        return;
    m_selected = true;
    m_pane->didSelect();
}

void HostWindow::unselect()
{
    if (!m_selected || !m_pane)
        return;
    m_selected = false;
    m_pane->didUnselect();
}

bool HostWindow::event(QEvent *event)
{
    switch (event->type()) {
    case QEvent::Show:
        if (!isMinimized())
            select();
        break;
    case QEvent::Hide:
        unselect();
        break;
    default:
        break;
    }
    return QMainWindow::event(event);
}

void HostWindow::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::WindowStateChange) {
        if (isMinimized())
            unselect();
        else if (isVisible())
            select();
    }
    QMainWindow::changeEvent(event);
}

bool HostWindow::eventFilter(QObject *watched, QEvent *event)
{
    // The first frame is on screen once the central view's first paint has been handled.
    if (!m_painted && event->type() == QEvent::Paint && watched == centralWidget()) {
        m_painted = true;
        QTimer::singleShot(0, this, &HostWindow::firstFramePainted);
    }
    return QMainWindow::eventFilter(watched, event);
}
