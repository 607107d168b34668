// The graph of a static scan: every edge the walk met (a file and the name its import table, delay-import table,
// .dep section or assembly reference led to), and what is asked of it: the tree of the closure, the chains that
// lead from the scanned file to a name, and the picture in Graphviz form. Nothing here recurses: a closure of
// any depth costs heap in proportion to its size.
#pragma once

#include "records.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace qvscan {

class dependency_graph {
public:
    struct edge {
        size_t to;
        std::string kind; // "import", "delay", "dep" or "assembly"
    };
    struct node {
        std::wstring name;       // as first written
        std::vector<edge> out;   // in the walk's order, each target once
        std::vector<size_t> in;  // the nodes with an edge to this one
        bool missing = false;    // a name the walk did not find
        bool shown = true;       // false: a system file the filter leaves out
        bool system = false;     // a file of the system's lists (shown grey when the filter is off)
    };

    // From the scan's edge lines (see IQvScanGraph) and its records; root is the scanned file's name. With
    // filter, names that are no record (the system's files) are left out of what is shown.
    dependency_graph(const std::wstring& edgeLines, const std::wstring& root, const std::vector<record>& records,
                     bool filter);

    size_t root() const { return 0; }
    const std::vector<node>& nodes() const { return m_nodes; }
    // The node of a name (a path is taken by its file-name part), or SIZE_MAX.
    size_t find(const std::wstring& name) const;

    // The closure as an indented tree: each file under the file that first reached it, one met again as a
    // leaf "(see above)", the kind of an edge other than an import and a missing file marked. Below 32 levels
    // a line says its depth ("[40] x.dll") instead of indenting further.
    std::string tree() const;

    // The chains from the root to a node, shortest first, each from the node's parent back to the root; at
    // most `limit`. `complete` says whether every chain was found (false: more may exist beyond the limit).
    struct chains_found {
        std::vector<std::vector<size_t>> chains;
        bool complete = true;
    };
    chains_found chains(size_t target, size_t limit) const;

    // The picture: missing files red, filtered ones grey (one "system" node when the filter is on), delay
    // edges dashed, .dep edges dotted.
    std::string dot() const;

    // "beta.dll <- app.exe"
    std::string chain_text(const std::vector<size_t>& chain) const;

private:
    size_t add(const std::wstring& name);
    std::vector<node> m_nodes;
    std::unordered_map<std::wstring, size_t> m_index; // by lower-case name
    std::vector<std::uint32_t> m_depth;               // shortest distance from the root over shown nodes
    bool m_filter = true;
};

} // namespace qvscan
