#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>

#include <functional>

#include "gui/VantorGuiExport.h"

class QWidget;

// The open panel for folders: directories only, several at once, new folders allowed.
// The desktop portal's file chooser where the session has one, else a widget dialog.
// Behind an interface so tests can answer it.
class VANTOR_GUI_EXPORT FolderChooser : public QObject
{
    Q_OBJECT
public:
    enum ReturnCode { Cancel = 0, OK = 1 };
    using Factory = std::function<FolderChooser *(QObject *parent)>;

    using QObject::QObject;

    // Shows the chooser window-modal on window (application-modal when null), starting in
    // directory. Does not wait: done receives the return code.
    virtual void beginSheetForDirectory(QWidget *window, const QString &directory, std::function<void(int)> done) = 0;
    // The chosen folders in the chooser's order, as file-system bytes.
    QList<QByteArray> filenames() const { return m_filenames; }

    // A new chooser owned by parent.
    static FolderChooser *openPanel(QObject *parent);
    // Replaces how choosers are made (tests); an empty factory restores the desktop's.
    static void setFactory(Factory factory);

protected:
    void setFilenames(const QList<QByteArray> &filenames) { m_filenames = filenames; }

private:
    QList<QByteArray> m_filenames;
};
