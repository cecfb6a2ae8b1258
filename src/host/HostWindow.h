#pragma once

#include "gui/PreferencePaneHost.h"

#include <QMainWindow>

class PreferencePane;

// The host's one window. It shows a pane's main view and tells the pane when it is shown
// (didSelect) and when it is hidden or minimised (didUnselect).
class HostWindow : public QMainWindow, public PreferencePaneHost
{
    Q_OBJECT
public:
    explicit HostWindow(QWidget *parent = nullptr);

    // Takes the pane's main view and runs its mainViewDidLoad once.
    void showPane(PreferencePane *pane);
    // What the window says when no pane could be found.
    void showNoPane(const QStringList &searched);

    void activateIgnoringOtherApps(bool flag) override;
    QWidget *mainWindow() const override;
    QWidget *keyWindow() const override;
    QObject *application() const override;
    void terminate(QObject *sender) override;

Q_SIGNALS:
    void firstFramePainted();

protected:
    bool event(QEvent *event) override;
    void changeEvent(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void select();
    void unselect();

    PreferencePane *m_pane = nullptr;
    bool m_selected = false;
    bool m_painted = false;
};
