#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantMap>

#include <memory>
#include <optional>

#include "common/VantorCommonExport.h"

class FSRef;
class QDataStream;

// The bytes of one alias record, owned by whoever holds the pointer; null is "no alias".
using AliasHandle = std::unique_ptr<QByteArray>;

// A persistent reference to a file or folder that finds it again after it has been moved
// or renamed on its volume. The record's bytes are opaque to callers; fullPath() resolves
// them afresh on every call and never rewrites them.
class VANTOR_COMMON_EXPORT BDAlias
{
public:
    // Failures of making an alias: domain "NSOSStatusErrorDomain", code the status
    // (-43 when the path leads to nothing).
    struct Error {
        QString domain;
        int code = 0;
    };
    static constexpr const char *kOSStatusErrorDomain = "NSOSStatusErrorDomain";
    static constexpr int kFileNotFound = -43;

    // Takes ownership of the handle; no handle still gives an object, holding no alias.
    explicit BDAlias(AliasHandle alias = nullptr);
    // Copies the bytes; a null QByteArray (no data) gives an object holding no alias.
    explicit BDAlias(const QByteArray &data);
    // Reads what encodeWithCoder wrote.
    explicit BDAlias(QDataStream &decoder);
    ~BDAlias();
    BDAlias(const BDAlias &) = delete;
    BDAlias &operator=(const BDAlias &) = delete;

    static std::unique_ptr<BDAlias> aliasWithAliasHandle(AliasHandle alias);
    static std::unique_ptr<BDAlias> aliasWithData(const QByteArray &data);
    // Null when the path names nothing.
    static std::unique_ptr<BDAlias> aliasWithPath(const QString &path, Error *error = nullptr);
    // An alias of relativeToPath/path that remembers its base; null, with no error, when
    // either does not exist.
    static std::unique_ptr<BDAlias> aliasWithPath(const QString &path, const QString &relativeToPath);
    static std::unique_ptr<BDAlias> aliasWithFSRef(const FSRef &ref, const FSRef *relativeToFSRef = nullptr,
                                                   Error *error = nullptr);

    void encodeWithCoder(QDataStream &encoder) const;

    // The held handle itself; this object keeps ownership.
    QByteArray *alias() const { return m_alias.get(); }
    void setAlias(AliasHandle alias);
    // A copy of the record's bytes; a null QByteArray when there is no alias.
    QByteArray aliasData() const;
    void setAliasData(const QByteArray &data);

    // The target's present path; a null QString when it cannot be found.
    QString fullPath() const;
    // Resolves against relativeToPath for an alias made relative to a base; a base that
    // does not exist gives a null QString. A null relativeToPath means no base.
    QString fullPathRelativeToPath(const QString &relativeToPath) const;

    // Equal when both resolve to the same path; an unresolvable alias equals nothing, not
    // even itself.
    bool isEqual(const BDAlias *other) const;
    bool operator==(const BDAlias &other) const { return isEqual(&other); }
    size_t hash() const;

    // What the record keeps about its target and volume, under the thirteen keys
    // "targetNameString" ... "volumeHasPersistentFileIDs"; nullopt when it cannot be read.
    std::optional<QVariantMap> aliasInfo() const;
    // Logs the target name, volume name, stored path and info bitmap.
    void dump() const;
    void cleanup();

private:
    AliasHandle m_alias;
};

inline size_t qHash(const BDAlias &alias, size_t = 0)
{
    return alias.hash();
}
