#pragma once

#include <QString>
#include <QVariantList>
#include <QVariantMap>

// The contents the reliability writer steps through, shared with the tests so a test can
// say which steps a file may hold.
namespace ReliabilityStates {

// Step n's settings: the step's number, written together with a setting that changes at
// every step, so each step is one write through the store's setter.
inline QVariantMap settingsAt(qint64 step)
{
    return {{QStringLiteral("firstRun"), false},
            {QStringLiteral("folderAliases"), QVariantList()},
            {QStringLiteral("step"), step},
            {QStringLiteral("visible"), step % 2 == 1}};
}

// Step n's login list: one to three entries that name the step.
inline QVariantList loginListAt(qint64 step)
{
    QVariantList list;
    for (qint64 i = 0; i <= step % 3; ++i) {
        list.append(QVariantMap{{QStringLiteral("Path"), QStringLiteral("/opt/step %1/App %2.app").arg(step).arg(i)},
                                {QStringLiteral("Hide"), (step + i) % 2 == 0}});
    }
    return list;
}

} // namespace ReliabilityStates
