#pragma once

#include <QString>
#include <QVariant>
#include <optional>

#include "platform/VantorPlatformExport.h"

// Property lists (XML and binary) through libplist, mapped onto QVariant:
// dict <-> QVariantMap, array <-> QVariantList, string <-> QString, boolean <-> bool,
// integer <-> qint64 (quint64 above INT64_MAX), real <-> double, data <-> QByteArray,
// date <-> QDateTime (UTC).
class VANTOR_PLATFORM_EXPORT PropertyList
{
public:
    // Parses XML or binary property-list bytes; nullopt when they are not a property list.
    static std::optional<QVariant> fromData(const QByteArray &data);
    // XML form of a value; empty when the value holds something a property list cannot, or
    // text with characters XML 1.0 does not allow (control characters other than tab and
    // line breaks, U+FFFE, U+FFFF), which binary property lists carry and XML readers refuse.
    static QByteArray toXml(const QVariant &value);
    // Binary form of a value; empty when the value holds something a property list cannot.
    static QByteArray toBinary(const QVariant &value);
    // What writeFile stores: the XML form, or the binary form where only it keeps the value.
    static QByteArray toData(const QVariant &value);

    static std::optional<QVariant> readFile(const QString &path);
    // Replaces the file (toData) atomically (temporary file in the same folder, flushed, renamed),
    // owner read/write only. On failure the old file is untouched and *error says why.
    static bool writeFile(const QString &path, const QVariant &value, QString *error = nullptr);

    // The platform's boolValue: numbers are true when non-zero; strings are true when they
    // start (after blanks, a sign and leading zeros) with Y, y, T, t or a digit 1-9.
    static bool boolValue(const QVariant &value);
};
