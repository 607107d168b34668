#include "dependency_graph.h"

#include "text_output.h"
#include "toolkit/path_helpers.h"

#include <algorithm>
#include <limits>
#include <queue>
#include <tuple>
#include <unordered_set>

namespace qvscan {

namespace {

constexpr std::uint32_t unreached = std::numeric_limits<std::uint32_t>::max();
// The most partial chains one search keeps: a bound on time and memory whatever the graph's shape.
constexpr size_t chain_states_kept = size_t{1} << 21;
// The deepest level the tree indents.
constexpr size_t indent_levels = 32;

std::vector<std::wstring> split(const std::wstring& line, wchar_t at) {
    std::vector<std::wstring> parts;
    for (size_t from = 0;;) {
        const size_t end = line.find(at, from);
        parts.push_back(line.substr(from, end == std::wstring::npos ? std::wstring::npos : end - from));
        if (end == std::wstring::npos)
            return parts;
        from = end + 1;
    }
}

std::string dot_text(const std::wstring& name) {
    std::string text;
    for (char c : utf8(name)) {
        if (c == '"' || c == '\\')
            text += '\\';
        text += c;
    }
    return text;
}

} // namespace

size_t dependency_graph::add(const std::wstring& name) {
    const auto [it, added] = m_index.try_emplace(qv::LowerCase(name), m_nodes.size());
    if (added)
        m_nodes.push_back({name, {}, {}, false, true, false});
    return it->second;
}

size_t dependency_graph::find(const std::wstring& name) const {
    const auto it = m_index.find(qv::LowerCase(qv::FileNamePart(name)));
    return it == m_index.end() ? SIZE_MAX : it->second;
}

dependency_graph::dependency_graph(const std::wstring& edgeLines, const std::wstring& root,
                                   const std::vector<record>& records, bool filter)
    : m_filter(filter) {
    add(qv::FileNamePart(root));
    std::unordered_set<std::wstring> kept, missing, system;
    for (const record& r : records) {
        kept.insert(qv::LowerCase(r.name));
        if (r.missing)
            missing.insert(qv::LowerCase(r.name));
        if (r.filterable)
            system.insert(qv::LowerCase(r.name));
    }
    std::unordered_set<std::uint64_t> linked;
    for (const std::wstring& line : split(edgeLines, L'\n')) {
        const std::vector<std::wstring> fields = split(line, L'\t');
        if (fields.size() < 3 || fields[0].empty() || fields[1].empty())
            continue;
        const size_t from = add(fields[0]), to = add(fields[1]);
        m_nodes[to].missing |= fields.size() > 3 && fields[3] == L"missing";
        if (from == to || !linked.insert(static_cast<std::uint64_t>(from) << 32 | to).second)
            continue;
        m_nodes[from].out.push_back({to, utf8(fields[2])});
        m_nodes[to].in.push_back(from);
    }
    for (size_t i = 1; i < m_nodes.size(); ++i) {
        const std::wstring key = qv::LowerCase(m_nodes[i].name);
        m_nodes[i].missing = missing.count(key) != 0 || (m_nodes[i].missing && !kept.count(key));
        m_nodes[i].system = system.count(key) != 0 || !kept.count(key);
        m_nodes[i].shown = !filter || kept.count(key) != 0;
    }
    // Shortest distances from the root over what is shown, breadth first.
    m_depth.assign(m_nodes.size(), unreached);
    m_depth[0] = 0;
    std::vector<size_t> todo{0};
    for (size_t at = 0; at < todo.size(); ++at)
        for (const edge& e : m_nodes[todo[at]].out)
            if (m_nodes[e.to].shown && m_depth[e.to] == unreached) {
                m_depth[e.to] = m_depth[todo[at]] + 1;
                todo.push_back(e.to);
            }
}

std::string dependency_graph::tree() const {
    std::string text = utf8(m_nodes[0].name) + "\n";
    std::vector<bool> seen(m_nodes.size());
    seen[0] = true;
    struct frame {
        size_t node, next;
    };
    std::vector<frame> stack{{0, 0}};
    while (!stack.empty()) {
        frame& top = stack.back();
        const std::vector<edge>& out = m_nodes[top.node].out;
        if (top.next == out.size()) {
            stack.pop_back();
            continue;
        }
        const edge& e = out[top.next++];
        const node& child = m_nodes[e.to];
        if (!child.shown)
            continue;
        // The indent stops growing at indent_levels; deeper lines say their depth, so that a chain thousands
        // deep costs its length, not its length squared.
        std::string line(2 * std::min(stack.size(), indent_levels), ' ');
        if (stack.size() > indent_levels)
            line += "[" + std::to_string(stack.size()) + "] ";
        line += utf8(child.name);
        if (e.kind != "import")
            line += e.kind == "dep" ? " [.dep]" : " [" + e.kind + "]";
        if (child.missing)
            line += "  MISSING";
        if (seen[e.to]) {
            text += line + (child.missing ? "\n" : " (see above)\n");
            continue;
        }
        seen[e.to] = true;
        text += line + "\n";
        stack.push_back({e.to, 0});
    }
    return text;
}

dependency_graph::chains_found dependency_graph::chains(size_t target, size_t limit) const {
    chains_found found;
    if (target >= m_nodes.size() || m_depth[target] == unreached || limit == 0) {
        found.complete = target < m_nodes.size() && m_depth[target] == unreached;
        return found;
    }
    // Best first from the target back to the root, a partial chain's cost its length so far plus its head's
    // distance from the root: that distance is exact, so chains come out shortest first, and a step along an
    // edge that shortens the distance by one can never close a circle (only the other steps are checked).
    struct state {
        size_t node, previous; // previous: the state one step nearer the target, or SIZE_MAX
        std::uint32_t length;
    };
    std::vector<state> states{{target, SIZE_MAX, 0}};
    using entry = std::tuple<std::uint64_t, std::uint32_t, size_t>; // cost, then the longest first, the state
    auto later = [](const entry& a, const entry& b) {
        return std::get<0>(a) != std::get<0>(b) ? std::get<0>(a) > std::get<0>(b) : std::get<1>(a) < std::get<1>(b);
    };
    std::priority_queue<entry, std::vector<entry>, decltype(later)> open(later);
    open.emplace(m_depth[target], 0, 0);
    while (!open.empty()) {
        const size_t at = std::get<2>(open.top());
        open.pop();
        const state s = states[at];
        if (s.node == 0) {
            if (found.chains.size() == limit) {
                found.complete = false;
                return found;
            }
            std::vector<size_t> chain;
            for (size_t i = at; states[i].previous != SIZE_MAX; i = states[i].previous)
                chain.push_back(states[i].node);
            std::reverse(chain.begin(), chain.end()); // the target's parent first, the root last
            found.chains.push_back(std::move(chain));
            continue;
        }
        for (const size_t parent : m_nodes[s.node].in) {
            if (!m_nodes[parent].shown || m_depth[parent] == unreached)
                continue;
            if (m_depth[parent] + 1 != m_depth[s.node]) {
                bool circle = parent == target;
                for (size_t i = at; !circle && i != SIZE_MAX; i = states[i].previous)
                    circle = states[i].node == parent;
                if (circle)
                    continue;
            }
            if (states.size() == chain_states_kept) {
                found.complete = false;
                return found;
            }
            states.push_back({parent, at, s.length + 1});
            open.emplace(std::uint64_t{s.length} + 1 + m_depth[parent], s.length + 1, states.size() - 1);
        }
    }
    return found;
}

std::string dependency_graph::chain_text(const std::vector<size_t>& chain) const {
    std::string text;
    for (const size_t node : chain)
        text += (text.empty() ? "" : " <- ") + utf8(m_nodes[node].name);
    return text;
}

std::string dependency_graph::dot() const {
    std::string text = "digraph dependencies {\n  rankdir=LR;\n  node [shape=box, fontname=\"sans-serif\"];\n";
    bool systemNode = false;
    for (size_t i = 0; i < m_nodes.size(); ++i) {
        const node& n = m_nodes[i];
        if (!n.shown)
            continue;
        text += "  n" + std::to_string(i) + " [label=\"" + dot_text(n.name) + "\"";
        if (i == 0)
            text += ", style=bold";
        else if (n.missing)
            text += ", color=red, fontcolor=red";
        else if (n.system)
            text += ", color=grey, fontcolor=grey";
        text += "];\n";
    }
    std::string edges;
    for (size_t i = 0; i < m_nodes.size(); ++i) {
        if (!m_nodes[i].shown)
            continue;
        bool toSystem = false;
        for (const edge& e : m_nodes[i].out) {
            const std::string style = e.kind == "delay" ? " [style=dashed]" : e.kind == "dep" ? " [style=dotted]" : "";
            if (m_nodes[e.to].shown)
                edges += "  n" + std::to_string(i) + " -> n" + std::to_string(e.to) + style + ";\n";
            else if (!toSystem) // the filter's files, one node for all
                edges += "  n" + std::to_string(i) + " -> system [color=grey];\n", toSystem = systemNode = true;
        }
    }
    if (systemNode)
        text += "  system [label=\"system files\", color=grey, fontcolor=grey, style=dashed];\n";
    return text + edges + "}\n";
}

} // namespace qvscan
