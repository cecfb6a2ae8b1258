#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include <memory>

#include "common/VantorCommonExport.h"

class Bundle;

// The history store's model: the statements that make the tables of entity "History" and
// the named fetch request templates (each an SQL condition on ZHISTORY). It is the resource
// "History.vtmodel" (JSON) of the bundle that owns the stack; docs/history-store.md
// describes the tables.
class VANTOR_COMMON_EXPORT HistoryModel
{
public:
    static constexpr const char *kResourceName = "History";
    static constexpr const char *kResourceType = "vtmodel";

    // The model read from the bundles' resources; null when none of them carries a valid one.
    static std::shared_ptr<const HistoryModel> mergedModelFromBundles(const QList<Bundle *> &bundles);
    // The model in one file; null when the file is missing or not a model.
    static std::shared_ptr<const HistoryModel> modelFromFile(const QString &path);

    QString entityName() const { return m_entity; }
    QStringList schemaStatements() const { return m_schema; }
    // The condition of a fetch request template; empty when the model has no such template.
    QString fetchRequestTemplate(const QString &name) const { return m_templates.value(name); }

private:
    QString m_entity;
    QStringList m_schema;
    QHash<QString, QString> m_templates;
};
