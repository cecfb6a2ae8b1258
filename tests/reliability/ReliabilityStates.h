#pragma once

#include <QVariantList>
#include <QVariantMap>

namespace ReliabilityStates {

// The login list the reliability writer writes at step n: one to three entries naming it.
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
