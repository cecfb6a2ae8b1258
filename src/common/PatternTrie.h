#pragma once

#include <QString>
#include <QStringView>

#include <cstdint>
#include <vector>

// A set of UTF-16 patterns compiled into one trie, so a question about a path costs steps in
// the length of the path, not in the number of patterns. Build it (insert, then finish), then
// ask; a finished trie is read-only and safe to share between threads.
class PatternTrie
{
public:
    // Empty patterns are never stored: none of the questions below can be answered by one.
    void insert(QStringView pattern);
    // Flattens the trie and, for occursIn, adds the failure links of an Aho-Corasick automaton.
    void finish();

    bool isEmpty() const { return m_patternCount == 0; }

    // Some pattern is a prefix of text.
    bool matchesPrefixOf(QStringView text) const;
    // Some pattern, read backwards, is a prefix of text read backwards: insert reversed
    // patterns to answer "text ends with a pattern".
    bool matchesReversedSuffixOf(QStringView text) const;
    // Some pattern occurs in text starting and ending where isBoundary(text, i) holds.
    bool occursIn(QStringView text, bool (*isBoundary)(QStringView, qsizetype)) const;

private:
    struct Edge {
        char16_t unit;
        uint32_t target;
    };
    struct Node {
        uint32_t firstEdge = 0;
        uint32_t edgeCount = 0;
        uint32_t depth = 0;
        uint32_t fail = 0;
        // Nearest node on the failure chain that ends a pattern (0: none).
        uint32_t output = 0;
        bool terminal = false;
    };

    uint32_t child(uint32_t node, char16_t unit) const;

    std::vector<Node> m_nodes{Node()};
    std::vector<Edge> m_edges;
    // While building: each node's edges, unsorted.
    std::vector<std::vector<Edge>> m_building{{}};
    qsizetype m_patternCount = 0;
};
