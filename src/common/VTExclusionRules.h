#pragma once

#include <QAtomicPointer>
#include <QMutex>
#include <QSet>
#include <QString>

#include "common/VantorCommonExport.h"

class ExclusionMatcher;

// Which paths the helper must never compress. The rules come from the system's rule file and
// from "ExclusionRules.plist" in the running program's resources, are read once, and answer
// one question, asked for every file the helper visits: must this path be excluded?
//
// Paths are taken exactly as given (no tilde, link or trailing-slash handling) and compared
// case-sensitively. Prefix, suffix and exact rules compare literally; a substring rule matches
// any canonically equivalent spelling, on whole characters.
class VANTOR_COMMON_EXPORT VTExclusionRules
{
public:
    static constexpr const char *kSystemRulesPath =
        "/System/Library/PrivateFrameworks/AppleFSCompression.framework/Resources/SystemCompressionRules.plist";
    static constexpr const char *kRulesFileName = "ExclusionRules.plist";
    static constexpr const char *kRuleTypeKey = "RuleType";
    static constexpr const char *kExcludeRuleType = "Exclude";
    static constexpr const char *kPathEndsWithKey = "PathEndsWithString";
    static constexpr const char *kPathBeginsWithKey = "PathBeginsWithString";
    static constexpr const char *kPathContainsKey = "PathContainsString";
    static constexpr const char *kPathEqualsKey = "PathExactlyEqualsString";

    static VTExclusionRules *sharedExclusionRules();
    // Allocation and loading: the first call makes the shared instance; later calls return
    // null and touch nothing.
    static VTExclusionRules *create();
    // The entry point for callers: the question asked of the shared instance.
    static bool mustExcludePath(const QString &path);

    // Tests only: where loadExclusionRules looks for the system's file and for the folder
    // holding "ExclusionRules.plist". Empty strings restore the real places.
    static void setRuleFileLocations(const QString &systemRulesPath, const QString &resourcePath);
    static QString systemRulesPath();
    static QString bundleRulesPath();

    // An instance of one's own with no rules, for tests and measurements; the process's rules
    // are the shared instance.
    VTExclusionRules();
    ~VTExclusionRules();
    Q_DISABLE_COPY_MOVE(VTExclusionRules)

    void loadExclusionRules();
    // A missing or unreadable file, or one whose root is not an array, adds nothing, silently.
    void loadRulesAt(const QString &path);

    // Adding is for setting up only: not while another thread asks questions.
    void addRuleForPathSuffix(const QString &pattern);
    void addRuleForPathPrefix(const QString &pattern);
    void addRuleForPathComponent(const QString &pattern);
    void addRuleForPathEqualsTo(const QString &pattern);

    bool mustExclude(const QString &path) const;
    bool suffixRuleMatchedForPath(const QString &path) const;
    bool prefixRuleMatchedForPath(const QString &path) const;
    bool componentRuleMatchedForPath(const QString &path) const;
    bool exactRuleMatchedForPath(const QString &path) const;

    // The same answer as mustExclude, found by testing every rule in turn: the reference the
    // fast answer is held to.
    bool mustExcludeByLinearScan(const QString &path) const;

    const QSet<QString> &suffixRules() const { return m_suffixRules; }
    const QSet<QString> &prefixRules() const { return m_prefixRules; }
    const QSet<QString> &componentRules() const { return m_componentRules; }
    const QSet<QString> &exactRules() const { return m_exactRules; }

private:
    const ExclusionMatcher &matcher() const;
    void rulesChanged();

    QSet<QString> m_suffixRules;
    QSet<QString> m_prefixRules;
    QSet<QString> m_componentRules;
    QSet<QString> m_exactRules;
    // Compiled from the sets on first need; dropped when a rule is added.
    mutable QAtomicPointer<ExclusionMatcher> m_matcher;
    mutable QMutex m_matcherLock;
};
