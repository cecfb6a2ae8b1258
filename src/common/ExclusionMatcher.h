#pragma once

#include <QSet>
#include <QString>
#include <QStringView>

#include "common/PatternTrie.h"

// The four kinds of exclusion rule compiled for fast questions: tries for prefixes and
// suffixes, an Aho-Corasick automaton for substrings, a hash for exact paths. Answers are the
// same as testing the patterns one by one; the cost follows the path's length, not the number
// of rules. Read-only once built.
class ExclusionMatcher
{
public:
    ExclusionMatcher(const QSet<QString> &suffixes, const QSet<QString> &prefixes, const QSet<QString> &substrings,
                     const QSet<QString> &exacts);

    bool matchesSuffix(const QString &path) const { return m_suffixes.matchesReversedSuffixOf(path); }
    bool matchesPrefix(const QString &path) const { return m_prefixes.matchesPrefixOf(path); }
    bool matchesSubstring(const QString &path) const;
    bool matchesExact(const QString &path) const { return m_exacts.contains(path); }

    // The canonical decomposition (NFD), in which canonically equivalent texts are equal.
    static QString canonicalForm(const QString &text);
    // Whether position i of a decomposed text starts a combining character sequence (or is
    // either end), so a match there does not split a character from its accents.
    static bool isCombiningBoundary(QStringView text, qsizetype i);
    // The substring question asked of one pattern: pattern (decomposed) found in text
    // (decomposed), starting and ending on combining-sequence boundaries. Never for an empty
    // pattern.
    static bool containsCanonically(const QString &decomposedText, const QString &decomposedPattern);

private:
    PatternTrie m_suffixes; // patterns reversed
    PatternTrie m_prefixes;
    PatternTrie m_substrings; // patterns decomposed
    QSet<QString> m_exacts;
};
