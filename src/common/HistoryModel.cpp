#include "common/HistoryModel.h"
#include "common/CommonLog.h"

#include "platform/Bundle.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

std::shared_ptr<const HistoryModel> HistoryModel::mergedModelFromBundles(const QList<Bundle *> &bundles)
{
    std::shared_ptr<HistoryModel> merged;
    for (Bundle *bundle : bundles) {
        if (!bundle)
            continue;
        const QString path = bundle->pathForResource(QLatin1String(kResourceName), QLatin1String(kResourceType));
        if (path.isEmpty())
            continue;
        std::shared_ptr<const HistoryModel> model = modelFromFile(path);
        if (!model)
            continue;
        if (!merged) {
            merged = std::make_shared<HistoryModel>(*model);
            continue;
        }
        for (const QString &statement : model->m_schema) {
            if (!merged->m_schema.contains(statement))
                merged->m_schema.append(statement);
        }
        merged->m_templates.insert(model->m_templates);
    }
    return merged;
}

std::shared_ptr<const HistoryModel> HistoryModel::modelFromFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return nullptr;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        qCWarning(lcCommon, "%s is not a history model: %s", qPrintable(path), qPrintable(error.errorString()));
        return nullptr;
    }
    const QJsonObject root = document.object();
    auto model = std::make_shared<HistoryModel>();
    model->m_entity = root.value(QLatin1String("entity")).toString();
    for (const QJsonValue &statement : root.value(QLatin1String("schema")).toArray())
        model->m_schema.append(statement.toString());
    const QJsonObject templates = root.value(QLatin1String("fetchRequestTemplates")).toObject();
    for (auto it = templates.begin(); it != templates.end(); ++it)
        model->m_templates.insert(it.key(), it.value().toString());
    if (model->m_entity.isEmpty() || model->m_schema.isEmpty()) {
        qCWarning(lcCommon, "%s is not a history model: no entity or no schema", qPrintable(path));
        return nullptr;
    }
    return model;
}
