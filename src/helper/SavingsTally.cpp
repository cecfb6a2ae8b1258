#include "helper/SavingsTally.h"

bool SavingsTally::isBelow(const QByteArray &path, const QByteArray &folder)
{
    return folder.isEmpty() || path == folder || (path.startsWith(folder) && path.at(folder.size()) == '/');
}

void SavingsTally::count(const QList<ExtentMap::Stored> &extents, bool more)
{
    for (const ExtentMap::Stored &extent : extents) {
        const auto it = m_extents.find(extent.physical);
        if (more && it == m_extents.end()) {
            const Extent counted{qint32(qMin(extent.savings, qint64(INT32_MAX))), 1};
            m_extents.insert(extent.physical, counted);
            m_savings += counted.savings;
        } else if (more) {
            ++it->files;
        } else if (it != m_extents.end() && --it->files == 0) {
            m_savings -= it->savings;
            m_extents.erase(it);
        }
    }
}

void SavingsTally::set(const QByteArray &folder, RescanCache::Figures figures)
{
    RescanCache::Figures &entry = m_folders[folder];
    // Counted before the old ones go, so an extent still there keeps its figure.
    count(figures.extents, true);
    count(entry.extents, false);
    m_savings += figures.inlineSavings - entry.inlineSavings;
    m_sharedPlain += figures.sharedPlain - entry.sharedPlain;
    entry = std::move(figures);
}

void SavingsTally::add(const QByteArray &folder, const RescanCache::Figures &figures)
{
    RescanCache::Figures &entry = m_folders[folder];
    count(figures.extents, true);
    entry.inlineSavings += figures.inlineSavings;
    entry.sharedPlain += figures.sharedPlain;
    entry.extents += figures.extents;
    m_savings += figures.inlineSavings;
    m_sharedPlain += figures.sharedPlain;
}

void SavingsTally::dropBelow(const QByteArray &folder)
{
    for (auto it = m_folders.begin(); it != m_folders.end();) {
        if (isBelow(it.key(), folder)) {
            count(it->extents, false);
            m_savings -= it->inlineSavings;
            m_sharedPlain -= it->sharedPlain;
            it = m_folders.erase(it);
        } else {
            ++it;
        }
    }
}

QList<QByteArray> SavingsTally::subfoldersOf(const QByteArray &folder) const
{
    QList<QByteArray> inside;
    for (auto it = m_folders.cbegin(); it != m_folders.cend(); ++it) {
        const QByteArray &path = it.key();
        const qsizetype slash = path.lastIndexOf('/');
        if (!path.isEmpty() && (slash < 0 ? QByteArray() : path.left(slash)) == folder)
            inside.append(path);
    }
    return inside;
}
