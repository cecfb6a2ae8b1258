#include "helper/HelperLog.h"
#include "platform/FileManager.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcHelper, "vantor.helper")

namespace {

// The log file's descriptor while a helper has it open, for the message handler.
std::atomic<int> g_logFd{-1};

// One write per line, appended, so lines from two helpers (or two threads) never interleave.
void writeLine(int fd, const QString &line)
{
    const QByteArray text = QDateTime::currentDateTime().toString(Qt::ISODateWithMs).toUtf8() + ' '
        + QByteArray::number(::getpid()) + ' ' + HelperLog::escaped(line) + '\n';
    [[maybe_unused]] const ssize_t n = ::write(fd, text.constData(), size_t(text.size()));
}

void logMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    // Qt's own debug chatter stays out; ours is switched by the category's rules.
    if (type == QtDebugMsg && qstrcmp(context.category, lcHelper().categoryName()) != 0)
        return;
    const int fd = g_logFd.load();
    writeLine(fd >= 0 ? fd : STDERR_FILENO, message);
}

} // namespace

QString HelperLog::path()
{
    const QString state = FileManager::userDirectory("XDG_STATE_HOME", QStringLiteral(".local/state"));
    return state.isEmpty() ? QString() : state + QStringLiteral("/vantor/VantorHelper.log");
}

bool HelperLog::open()
{
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, STDIN_FILENO);
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
    qInstallMessageHandler(logMessage);
    const QString file = path();
    if (!file.isEmpty()) {
        FileManager::createUserDirectory(QFileInfo(file).absolutePath());
        m_fd = ::open(QFile::encodeName(file).constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    }
    if (m_fd < 0) {
        qCWarning(lcHelper, "cannot open the log file %s; logging to standard error",
                  file.isEmpty() ? "(no state folder)" : qPrintable(file));
        return false;
    }
    ::dup2(m_fd, STDERR_FILENO);
    g_logFd = m_fd;
    return true;
}

HelperLog::~HelperLog()
{
    if (m_fd < 0)
        return;
    g_logFd = -1;
    ::close(m_fd);
}

QString HelperLog::name(const QByteArray &bytes)
{
    if (QByteArrayView(bytes).isValidUtf8())
        return QString::fromUtf8(bytes);
    const QByteArrayView view(bytes);
    QString out;
    for (qsizetype i = 0; i < bytes.size();) {
        // A character takes at most four bytes: the shortest run from i that is UTF-8 is one.
        qsizetype length = 1;
        while (length < 4 && i + length < bytes.size() && !view.sliced(i, length).isValidUtf8())
            ++length;
        if (view.sliced(i, length).isValidUtf8()) {
            out += QString::fromUtf8(view.sliced(i, length));
            i += length;
        } else {
            out += QChar(char16_t(0xdc00 + static_cast<unsigned char>(bytes.at(i))));
            ++i;
        }
    }
    return out;
}

QByteArray HelperLog::escaped(const QString &text)
{
    QByteArray out;
    qsizetype from = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text.at(i).unicode();
        if (c < 0xdc80 || c > 0xdcff || (i > 0 && text.at(i - 1).isHighSurrogate()))
            continue;
        out += escaped(text.sliced(from, i - from).toUtf8()) + "\\x" + QByteArray::number(c & 0xff, 16);
        from = i + 1;
    }
    return out + escaped(text.sliced(from).toUtf8());
}

// Folder names may hold line breaks and other control characters: written as C escapes
// (and the backslash doubled), each entry stays one line and no name can forge another.
QByteArray HelperLog::escaped(const QByteArray &text)
{
    QByteArray out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (c == '\r')
            out += "\\r";
        else if (u < 0x20 || u == 0x7f)
            out += "\\x" + QByteArray::number(u, 16).rightJustified(2, '0');
        else
            out += c;
    }
    return out;
}
