#include "common/ExclusionMatcher.h"

#include <algorithm>

namespace {

// Below U+00C0 no character has a canonical decomposition, so such text is already NFD.
bool isTriviallyDecomposed(const QString &text)
{
    return std::all_of(text.cbegin(), text.cend(), [](QChar c) { return c.unicode() < 0xC0; });
}

QString reversed(const QString &text)
{
    QString out = text;
    std::reverse(out.begin(), out.end());
    return out;
}

} // namespace

ExclusionMatcher::ExclusionMatcher(const QSet<QString> &suffixes, const QSet<QString> &prefixes,
                                   const QSet<QString> &substrings, const QSet<QString> &exacts)
    : m_exacts(exacts)
{
    for (const QString &pattern : suffixes)
        m_suffixes.insert(reversed(pattern));
    for (const QString &pattern : prefixes)
        m_prefixes.insert(pattern);
    for (const QString &pattern : substrings)
        m_substrings.insert(canonicalForm(pattern));
    m_suffixes.finish();
    m_prefixes.finish();
    m_substrings.finish();
}

bool ExclusionMatcher::matchesSubstring(const QString &path) const
{
    if (m_substrings.isEmpty())
        return false;
    return m_substrings.occursIn(canonicalForm(path), &ExclusionMatcher::isCombiningBoundary);
}

QString ExclusionMatcher::canonicalForm(const QString &text)
{
    if (isTriviallyDecomposed(text))
        return text;
    return text.normalized(QString::NormalizationForm_D);
}

bool ExclusionMatcher::isCombiningBoundary(QStringView text, qsizetype i)
{
    if (i <= 0 || i >= text.size())
        return true;
    const QChar c = text[i];
    if (c.unicode() < 0x80)
        return true;
    // The second half of a surrogate pair is inside a character.
    if (c.isLowSurrogate() && text[i - 1].isHighSurrogate())
        return false;
    char32_t ucs = c.unicode();
    if (c.isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate())
        ucs = QChar::surrogateToUcs4(c, text[i + 1]);
    // Marks, and the joiners that may sit among them, continue the sequence before them.
    return !(QChar::isMark(ucs) || ucs == 0x200C || ucs == 0x200D);
}

bool ExclusionMatcher::containsCanonically(const QString &decomposedText, const QString &decomposedPattern)
{
    if (decomposedPattern.isEmpty())
        return false;
    for (qsizetype at = decomposedText.indexOf(decomposedPattern); at >= 0;
         at = decomposedText.indexOf(decomposedPattern, at + 1)) {
        if (isCombiningBoundary(decomposedText, at)
            && isCombiningBoundary(decomposedText, at + decomposedPattern.size()))
            return true;
    }
    return false;
}
