#include "common/VTExclusionRules.h"
#include "common/CommonLog.h"

#include "platform/Bundle.h"
#include "common/ExclusionMatcher.h"
#include "platform/PropertyList.h"
#include "common/SharedInstance.h"

#include <QDebug>

#include <atomic>

namespace {

QRecursiveMutex g_lock;
VTExclusionRules *g_shared = nullptr;
// The shared instance once fully loaded, for the question that is asked millions of times
// and must not take the lock.
std::atomic<VTExclusionRules *> g_ready{nullptr};

QString g_systemRulesPath;
QString g_resourcePath;

constexpr qsizetype kInitialCapacity = 50;

} // namespace

VTExclusionRules::VTExclusionRules()
{
    m_suffixRules.reserve(kInitialCapacity);
    m_prefixRules.reserve(kInitialCapacity);
    m_componentRules.reserve(kInitialCapacity);
    m_exactRules.reserve(kInitialCapacity);
}

VTExclusionRules::~VTExclusionRules()
{
    delete m_matcher.loadAcquire();
}

VTExclusionRules *VTExclusionRules::create()
{
    // Loaded while the lock is held, so nobody sees a half-filled shared instance.
    return SharedInstance::allocate(g_shared, g_lock, [] {
        auto *rules = new VTExclusionRules;
        rules->loadExclusionRules();
        return rules;
    });
}

VTExclusionRules *VTExclusionRules::sharedExclusionRules()
{
    VTExclusionRules *rules = SharedInstance::shared(g_shared, g_lock, &VTExclusionRules::create);
    g_ready.store(rules, std::memory_order_release);
    return rules;
}

bool VTExclusionRules::mustExcludePath(const QString &path)
{
    VTExclusionRules *rules = g_ready.load(std::memory_order_acquire);
    if (!rules)
        rules = sharedExclusionRules();
    return rules->mustExclude(path);
}

void VTExclusionRules::setRuleFileLocations(const QString &systemRulesPath, const QString &resourcePath)
{
    g_systemRulesPath = systemRulesPath;
    g_resourcePath = resourcePath;
}

QString VTExclusionRules::systemRulesPath()
{
    return g_systemRulesPath.isEmpty() ? QString::fromLatin1(kSystemRulesPath) : g_systemRulesPath;
}

QString VTExclusionRules::bundleRulesPath()
{
    QString folder = g_resourcePath;
    if (folder.isEmpty()) {
        const Bundle *main = Bundle::mainBundle();
        if (!main)
            return QString();
        folder = main->resourcePath();
    }
    return folder + u'/' + QLatin1String(kRulesFileName);
}

void VTExclusionRules::loadExclusionRules()
{
    loadRulesAt(systemRulesPath());
    loadRulesAt(bundleRulesPath());
    matcher();
}

void VTExclusionRules::loadRulesAt(const QString &path)
{
    if (path.isEmpty())
        return;
    const std::optional<QVariant> root = PropertyList::readFile(path);
    if (!root || root->typeId() != QMetaType::QVariantList)
        return;

    const QVariantList groups = root->toList();
    for (qsizetype i = 0; i < groups.size(); ++i) {
        const QVariant &group = groups.at(i);
        if (group.typeId() != QMetaType::QVariantMap) {
            qCWarning(lcCommon).noquote() << "skipping entry" << i << "of" << path << "(not a dictionary)";
            continue;
        }
        const QVariantMap rule = group.toMap();
        const QVariant type = rule.value(QLatin1String(kRuleTypeKey));
        if (type.typeId() != QMetaType::QString || type.toString() != QLatin1String(kExcludeRuleType))
            continue;
        for (auto it = rule.cbegin(); it != rule.cend(); ++it) {
            void (VTExclusionRules::*add)(const QString &) = nullptr;
            if (it.key() == QLatin1String(kPathEndsWithKey))
                add = &VTExclusionRules::addRuleForPathSuffix;
            else if (it.key() == QLatin1String(kPathBeginsWithKey))
                add = &VTExclusionRules::addRuleForPathPrefix;
            else if (it.key() == QLatin1String(kPathContainsKey))
                add = &VTExclusionRules::addRuleForPathComponent;
            else if (it.key() == QLatin1String(kPathEqualsKey))
                add = &VTExclusionRules::addRuleForPathEqualsTo;
            if (!add)
                continue;
            if (it.value().typeId() != QMetaType::QString) {
                qCWarning(lcCommon).noquote()
                    << "skipping" << it.key() << "of entry" << i << "of" << path << "(not a string)";
                continue;
            }
            (this->*add)(it.value().toString());
        }
    }
}

void VTExclusionRules::addRuleForPathSuffix(const QString &pattern)
{
    m_suffixRules.insert(pattern);
    rulesChanged();
}

void VTExclusionRules::addRuleForPathPrefix(const QString &pattern)
{
    m_prefixRules.insert(pattern);
    rulesChanged();
}

void VTExclusionRules::addRuleForPathComponent(const QString &pattern)
{
    m_componentRules.insert(pattern);
    rulesChanged();
}

void VTExclusionRules::addRuleForPathEqualsTo(const QString &pattern)
{
    m_exactRules.insert(pattern);
    rulesChanged();
}

void VTExclusionRules::rulesChanged()
{
    delete m_matcher.fetchAndStoreOrdered(nullptr);
}

const ExclusionMatcher &VTExclusionRules::matcher() const
{
    ExclusionMatcher *compiled = m_matcher.loadAcquire();
    if (compiled)
        return *compiled;
    QMutexLocker locker(&m_matcherLock);
    compiled = m_matcher.loadAcquire();
    if (!compiled) {
        compiled = new ExclusionMatcher(m_suffixRules, m_prefixRules, m_componentRules, m_exactRules);
        m_matcher.storeRelease(compiled);
    }
    return *compiled;
}

bool VTExclusionRules::mustExclude(const QString &path) const
{
    return suffixRuleMatchedForPath(path) || prefixRuleMatchedForPath(path) || componentRuleMatchedForPath(path)
        || exactRuleMatchedForPath(path);
}

bool VTExclusionRules::suffixRuleMatchedForPath(const QString &path) const
{
    return matcher().matchesSuffix(path);
}

bool VTExclusionRules::prefixRuleMatchedForPath(const QString &path) const
{
    return matcher().matchesPrefix(path);
}

bool VTExclusionRules::componentRuleMatchedForPath(const QString &path) const
{
    return matcher().matchesSubstring(path);
}

bool VTExclusionRules::exactRuleMatchedForPath(const QString &path) const
{
    return matcher().matchesExact(path);
}

bool VTExclusionRules::mustExcludeByLinearScan(const QString &path) const
{
    for (const QString &pattern : m_suffixRules) {
        if (!pattern.isEmpty() && path.endsWith(pattern))
            return true;
    }
    for (const QString &pattern : m_prefixRules) {
        if (!pattern.isEmpty() && path.startsWith(pattern))
            return true;
    }
    if (!m_componentRules.isEmpty()) {
        const QString decomposedPath = ExclusionMatcher::canonicalForm(path);
        for (const QString &pattern : m_componentRules) {
            if (ExclusionMatcher::containsCanonically(decomposedPath, ExclusionMatcher::canonicalForm(pattern)))
                return true;
        }
    }
    for (const QString &pattern : m_exactRules) {
        if (path == pattern)
            return true;
    }
    return false;
}
