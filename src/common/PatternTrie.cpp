#include "common/PatternTrie.h"

#include <algorithm>
#include <deque>
#include <limits>

namespace {

constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();
// Above this many edges a node's edges are searched by halving rather than one by one.
constexpr uint32_t kLinearSearchLimit = 8;

} // namespace

void PatternTrie::insert(QStringView pattern)
{
    Q_ASSERT(!m_building.empty()); // not after finish()
    if (pattern.isEmpty())
        return;
    uint32_t node = 0;
    for (const QChar ch : pattern) {
        const char16_t unit = ch.unicode();
        std::vector<Edge> &edges = m_building[node];
        auto found = std::find_if(edges.begin(), edges.end(), [unit](const Edge &e) { return e.unit == unit; });
        if (found != edges.end()) {
            node = found->target;
            continue;
        }
        const auto next = uint32_t(m_nodes.size());
        Node made;
        made.depth = m_nodes[node].depth + 1;
        m_nodes.push_back(made);
        m_building.emplace_back();
        m_building[node].push_back({unit, next});
        node = next;
    }
    if (!m_nodes[node].terminal) {
        m_nodes[node].terminal = true;
        ++m_patternCount;
    }
}

void PatternTrie::finish()
{
    m_edges.clear();
    for (size_t n = 0; n < m_nodes.size(); ++n) {
        std::vector<Edge> &edges = m_building[n];
        std::sort(edges.begin(), edges.end(), [](const Edge &a, const Edge &b) { return a.unit < b.unit; });
        m_nodes[n].firstEdge = uint32_t(m_edges.size());
        m_nodes[n].edgeCount = uint32_t(edges.size());
        m_edges.insert(m_edges.end(), edges.begin(), edges.end());
    }
    m_building.clear();
    m_building.shrink_to_fit();

    // Failure links in breadth-first order: a node's link is the longest proper suffix of its
    // string that is also in the trie.
    std::deque<uint32_t> queue;
    for (uint32_t e = 0; e < m_nodes[0].edgeCount; ++e) {
        const uint32_t v = m_edges[m_nodes[0].firstEdge + e].target;
        m_nodes[v].fail = 0;
        m_nodes[v].output = 0;
        queue.push_back(v);
    }
    while (!queue.empty()) {
        const uint32_t u = queue.front();
        queue.pop_front();
        for (uint32_t e = 0; e < m_nodes[u].edgeCount; ++e) {
            const Edge edge = m_edges[m_nodes[u].firstEdge + e];
            uint32_t f = m_nodes[u].fail;
            uint32_t next = child(f, edge.unit);
            while (next == kNone && f != 0) {
                f = m_nodes[f].fail;
                next = child(f, edge.unit);
            }
            const uint32_t fail = next == kNone ? 0 : next;
            Node &v = m_nodes[edge.target];
            v.fail = fail;
            v.output = m_nodes[fail].terminal ? fail : m_nodes[fail].output;
            queue.push_back(edge.target);
        }
    }
}

uint32_t PatternTrie::child(uint32_t node, char16_t unit) const
{
    const Node &n = m_nodes[node];
    const Edge *first = m_edges.data() + n.firstEdge;
    const Edge *last = first + n.edgeCount;
    if (n.edgeCount <= kLinearSearchLimit) {
        for (const Edge *e = first; e != last; ++e) {
            if (e->unit == unit)
                return e->target;
        }
        return kNone;
    }
    const Edge *e = std::lower_bound(first, last, unit, [](const Edge &a, char16_t u) { return a.unit < u; });
    return (e != last && e->unit == unit) ? e->target : kNone;
}

bool PatternTrie::matchesPrefixOf(QStringView text) const
{
    uint32_t node = 0;
    for (const QChar ch : text) {
        node = child(node, ch.unicode());
        if (node == kNone)
            return false;
        if (m_nodes[node].terminal)
            return true;
    }
    return false;
}

bool PatternTrie::matchesReversedSuffixOf(QStringView text) const
{
    uint32_t node = 0;
    for (qsizetype i = text.size() - 1; i >= 0; --i) {
        node = child(node, text[i].unicode());
        if (node == kNone)
            return false;
        if (m_nodes[node].terminal)
            return true;
    }
    return false;
}

bool PatternTrie::occursIn(QStringView text, bool (*isBoundary)(QStringView, qsizetype)) const
{
    if (m_patternCount == 0)
        return false;
    uint32_t state = 0;
    const qsizetype size = text.size();
    for (qsizetype i = 0; i < size; ++i) {
        const char16_t unit = text[i].unicode();
        for (;;) {
            const uint32_t next = child(state, unit);
            if (next != kNone) {
                state = next;
                break;
            }
            if (state == 0)
                break;
            state = m_nodes[state].fail;
        }
        const qsizetype end = i + 1;
        if (!isBoundary(text, end))
            continue;
        // Every pattern ending here, longest first; one that also starts on a boundary will do.
        for (uint32_t out = m_nodes[state].terminal ? state : m_nodes[state].output; out != 0;
             out = m_nodes[out].output) {
            if (isBoundary(text, end - m_nodes[out].depth))
                return true;
        }
    }
    return false;
}
