#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <sys/types.h>

// Files for tests that work on real file systems: contents that compress well or not at
// all, made and compared as bytes (file names need not be UTF-8, so neither QString nor
// QDirIterator may carry them), and the tools we did not write that check them.
class TestFiles
{
public:
    // Text that compresses well, as documents and source code do.
    static QByteArray text(qsizetype size, quint32 seed);
    static QByteArray noise(qsizetype size, quint32 seed);
    // Every file's content hash by its path relative to folder, read without marking
    // anything read (in a snapshot that would unshare metadata).
    static QMap<QByteArray, QByteArray> hashes(const QString &folder);
    static void writeBytes(const QByteArray &path, const QByteArray &bytes);
    static bool fallocate(const QString &path, qint64 bytes);
    // A program's standard output, trimmed.
    static QString run(const QString &program, const QStringList &arguments);
    // The shell's, running script with arguments as $0, $1, ..., as uid when it is not root.
    static QString sh(const QString &script, const QStringList &arguments = {}, uid_t uid = 0);
    static void chown(const QString &path, uid_t uid);
};
