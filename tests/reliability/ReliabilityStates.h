#pragma once

#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <bit>

// The contents the reliability writer steps through, shared with the tests so a test can
// say which steps a file may hold.
namespace ReliabilityStates {

inline constexpr const char *kSettingKeys[] = {"active", "runAtLogin", "checkUpdates", "visible"};

// Step n holds the Gray code of n in the four settings: one setting changes per step.
inline unsigned grayCode(qint64 step)
{
    return unsigned((step ^ (step >> 1)) & 15);
}

inline int settingChangedAt(qint64 step)
{
    const unsigned diff = grayCode(step) ^ grayCode(step - 1);
    return diff ? std::countr_zero(diff) : 0; // the code wraps at 16 steps without a change
}

inline QVariantMap settingsAt(qint64 step)
{
    QVariantMap map{{QStringLiteral("firstRun"), false}, {QStringLiteral("folderAliases"), QVariantList()}};
    for (int bit = 0; bit < 4; ++bit)
        map.insert(QLatin1String(kSettingKeys[bit]), bool(grayCode(step) & (1u << bit)));
    return map;
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
