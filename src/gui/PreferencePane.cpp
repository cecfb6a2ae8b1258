#include "gui/PreferencePane.h"

#include "gui/PreferencePaneHost.h"

PreferencePaneHost::~PreferencePaneHost() = default;

PreferencePane::PreferencePane(QObject *parent)
    : QObject(parent)
{
}

PreferencePane::~PreferencePane() = default;

void PreferencePane::initWithBundle(Bundle *bundle, PreferencePaneHost *host)
{
    m_bundle = bundle;
    m_host = host;
}

QWidget *PreferencePane::loadMainView()
{
    if (!m_mainView)
        m_mainView = buildMainView();
    return m_mainView;
}
