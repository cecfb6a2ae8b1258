#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QWidget>

#include "gui/VantorGuiExport.h"

class Bundle;
class PreferencePaneHost;

#define PreferencePane_iid "com.quillfen.PreferencePane/1"

// Base of a pane plugin. The host loads the plugin's library from the bundle, hands the pane
// its bundle and itself, asks for the main view, calls mainViewDidLoad once, and then
// didSelect / didUnselect as the pane is shown and hidden.
class VANTOR_GUI_EXPORT PreferencePane : public QObject
{
    Q_OBJECT
public:
    explicit PreferencePane(QObject *parent = nullptr);
    ~PreferencePane() override;

    void initWithBundle(Bundle *bundle, PreferencePaneHost *host);
    Bundle *bundle() const { return m_bundle; }
    PreferencePaneHost *host() const { return m_host; }

    virtual QString mainNibName() const = 0;

    // Builds the main view the first time; the caller takes it into its window.
    QWidget *loadMainView();
    QWidget *mainView() const { return m_mainView; }

    virtual void mainViewDidLoad() { }
    virtual void didSelect() { }
    virtual void didUnselect() { }

protected:
    // Builds the main view and the interface's other objects from the interface file.
    virtual QWidget *buildMainView() = 0;

private:
    Bundle *m_bundle = nullptr;
    PreferencePaneHost *m_host = nullptr;
    QPointer<QWidget> m_mainView;
};
