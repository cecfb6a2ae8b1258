#pragma once

#include <QByteArray>
#include <QLoggingCategory>
#include <QString>

Q_DECLARE_LOGGING_CATEGORY(lcHelper)

// The helper's log file, "$XDG_STATE_HOME/vantor/VantorHelper.log": one entry per line, the
// time, the process id and the text, control characters escaped so that no folder name can
// break a line or forge one. Everything the helper says goes through the logging category
// "vantor.helper" (switched with QT_LOGGING_RULES as any Qt category) into this file; the
// process's standard error is the file too, so whatever a library prints lands there.
class HelperLog
{
public:
    static QString path();

    // Standard input and output become /dev/null and standard error the log, whatever the
    // helper inherited: a pipe of whoever started it must not stay open, nor fill up.
    // False (standard error kept) when the log cannot be opened.
    bool open();
    ~HelperLog();

    // A name as the log writes it: UTF-8 as it stands, any other byte carried through the
    // logging category as U+DC80 plus the byte (as Python's "surrogateescape" does) and written
    // as a C escape with the control characters.
    static QString name(const QByteArray &bytes);
    static QByteArray escaped(const QString &text);
    static QByteArray escaped(const QByteArray &text);

private:
    int m_fd = -1;
};
