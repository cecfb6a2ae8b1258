#pragma once

#include <QObject>

class QMenu;
class QSystemTrayIcon;

// The helper's icon in the desktop's tray (a StatusNotifierItem through Qt): the total saved,
// and a way to open the settings pane. Shown while the "visible" setting is on and the desktop
// has a tray; exists only where the helper has a display.
class TrayIcon : public QObject
{
    Q_OBJECT
public:
    static constexpr const char *kHostExecutable = "vantor-preferences";

    explicit TrayIcon(QObject *parent = nullptr);
    ~TrayIcon() override;

    void setVisible(bool visible);
    void setTotalSavings(quint64 total);
    // What the helper is doing, in a few words; empty when there is nothing to say.
    void setActivity(const QString &words);
    bool isShown() const;

private:
    void openSettings();
    void updateToolTip();

    quint64 m_total = 0;
    QString m_activity;
    QSystemTrayIcon *m_icon;
    QMenu *m_menu;
};
