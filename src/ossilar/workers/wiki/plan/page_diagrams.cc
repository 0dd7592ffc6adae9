// The graph has edges between pages of all levels; a reader wants those between modules of one. So each
// diagram first maps both ends of every edge to the page as which it is drawn (shown_as), which merges edges,
// and only then cuts the graph down to what can be read. A cut before that would count edges that become one.
#include "ossilar/workers/wiki/plan/page_diagrams.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

// What a reader takes in at a glance, and what Mermaid lays out without a tangle.
constexpr std::size_t kMostNodes = 24;
constexpr std::size_t kMostEdges = 60;
constexpr std::size_t kLongestLabel = 60;  // bytes, before escaping; a longer one makes its box too wide
// A walk up through the parents must end even if they form a circle, which plan_entries.cc refuses. A deeper
// page is drawn as its 64th ancestor.
constexpr int kDeepestPlan = 64;

using Ids = std::unordered_set<std::string_view>;
using Edge = std::pair<std::string_view, std::string_view>;  // page ids: what depends, what it depends on
using Edges = std::set<Edge>;

// The id of the page above, if that is a unit page; else "".
std::string_view unit_above(const Plans& plans, std::string_view id) {
  const PagePlan* plan = plans.find(id);
  const PagePlan* parent = plan != nullptr ? plans.find(plan->parent) : nullptr;
  return parent != nullptr && plan_type(*parent).unit ? std::string_view(parent->page_id)
                                                      : std::string_view();
}

// The page as which `id` is drawn if only the pages in `open` show their children: the nearest ancestor, or
// `id` itself, with an open parent or none.
std::string_view shown_as(const Plans& plans, std::string_view id, const Ids& open) {
  for (int i = 0; i < kDeepestPlan; ++i) {
    const std::string_view above = unit_above(plans, id);
    if (above.empty() || open.count(above) > 0) break;
    id = above;
  }
  return id;
}

// `id` and the unit pages above it; empty for "".
Ids with_ancestors(const Plans& plans, std::string_view id) {
  Ids out;
  for (int i = 0; i < kDeepestPlan && !id.empty(); ++i, id = unit_above(plans, id)) out.insert(id);
  return out;
}

// The page and all below it. The set of ids seen ends it if children form a circle.
Ids with_descendants(const Plans& plans, const PagePlan& plan) {
  Ids out{plan.page_id};
  std::vector<std::string_view> waiting{plan.page_id};
  while (!waiting.empty()) {
    const PagePlan* next = plans.find(waiting.back());
    waiting.pop_back();
    if (next == nullptr) continue;
    for (const std::string& child : next->children) {
      if (out.insert(child).second) waiting.emplace_back(child);
    }
  }
  return out;
}

// Edges within what is drawn as one page disappear.
void add_edge(Edges& edges, std::string_view from, std::string_view to) {
  if (from != to) edges.emplace(from, to);
}

// All edges, each end drawn as its top module. Edges come in the order of what depends, so its walk up is
// made once for all of its edges.
Edges between_top_modules(const Plans& plans, const ModuleGraph& graph) {
  Edges edges;
  std::string_view last;
  std::string_view source;
  for (const auto& [from, to] : graph.edges()) {
    if (std::exchange(last, from) != from) source = shown_as(plans, from, {});
    add_edge(edges, source, shown_as(plans, to, {}));
  }
  return edges;
}

// What the module, with all below it, depends on and what depends on it. Of other pages those are drawn that
// stand beside the module or beside a page above it, so the picture is coarser the farther away it looks.
Edges neighbours(const PagePlan& plan, const Ids& inside, const Plans& plans, const ModuleGraph& graph) {
  const Ids open = with_ancestors(plans, unit_above(plans, plan.page_id));
  Edges edges;
  for (const std::string_view id : inside) {
    for (const std::string_view to : graph.dependencies(id))
      if (inside.count(to) == 0) add_edge(edges, plan.page_id, shown_as(plans, to, open));
    for (const std::string_view from : graph.dependents(id))
      if (inside.count(from) == 0) add_edge(edges, shown_as(plans, from, open), plan.page_id);
  }
  return edges;
}

// The edges inside the module, each end drawn as the child that it is in. The module's own files are no
// child.
Edges between_children(const PagePlan& plan, const Ids& inside, const Plans& plans,
                       const ModuleGraph& graph) {
  const std::string_view self = plan.page_id;
  Edges edges;
  for (const std::string_view from : inside) {
    if (from == self) continue;
    for (const std::string_view to : graph.dependencies(from)) {
      if (to != self && inside.count(to) > 0)
        add_edge(edges, shown_as(plans, from, {self}), shown_as(plans, to, {self}));
    }
  }
  return edges;
}

// The nodes of `edges`, the most connected first, of equal ones the first by id.
std::vector<std::string_view> ranked_nodes(const Edges& edges) {
  std::map<std::string_view, std::size_t> degrees;
  for (const auto& [from, to] : edges) {
    ++degrees[from];
    ++degrees[to];
  }
  std::vector<std::string_view> nodes;
  nodes.reserve(degrees.size());
  for (const auto& [id, degree] : degrees) nodes.push_back(id);
  std::stable_sort(nodes.begin(), nodes.end(),
                   [&](std::string_view a, std::string_view b) { return degrees[a] > degrees[b]; });
  return nodes;
}

// The edges between the most connected nodes, at most kMostEdges, in order. An edge ranks by its less
// connected end: what is kept is then a few nodes with all edges between them, not many nodes with an edge
// each.
std::vector<Edge> shown_edges(const Edges& edges, const std::vector<std::string_view>& nodes) {
  std::unordered_map<std::string_view, std::size_t> rank;
  for (std::size_t i = 0; i < std::min(nodes.size(), kMostNodes); ++i) rank.emplace(nodes[i], i);
  std::vector<Edge> kept;
  std::copy_if(edges.begin(), edges.end(), std::back_inserter(kept),
               [&](const Edge& edge) { return rank.count(edge.first) > 0 && rank.count(edge.second) > 0; });
  const auto lower_end = [&](const Edge& edge) { return std::max(rank[edge.first], rank[edge.second]); };
  std::stable_sort(kept.begin(), kept.end(),
                   [&](const Edge& a, const Edge& b) { return lower_end(a) < lower_end(b); });
  kept.resize(std::min(kept.size(), kMostEdges));
  std::sort(kept.begin(), kept.end());
  return kept;
}

// Whether the character means nothing to Mermaid between quotes, in Markdown or in HTML. A list of what is
// safe: what is not depends on the renderer and its version.
bool is_plain(char c) {
  const bool alphanumeric = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  const bool beyond_ascii = static_cast<unsigned char>(c) >= 0x80;
  return alphanumeric || beyond_ascii || std::string_view(" ./-_,()+").find(c) != std::string_view::npos;
}

// Any text as a label: on one line, cut, and with Mermaid's entity codes for what is not plain. In this
// order: a cut after the escaping could go through a code, and control characters must be visible before '<'
// is escaped.
std::string label(std::string_view text) {
  std::string line;
  for (const std::string_view word : utils::split_words(text)) {
    if (!line.empty()) line += ' ';
    line += word;
  }
  line = utils::printable(line);
  if (line.size() > kLongestLabel) line = std::string(utils::utf8_prefix(line, kLongestLabel)) + "...";
  std::string out;
  for (const char c : line) {
    if (is_plain(c)) {
      out += c;
    } else {
      out += "#" + std::to_string(int{c}) + ";";
    }
  }
  return out;
}

std::string label_of(const Plans& plans, std::string_view id) {
  const PagePlan* plan = plans.find(id);
  const std::string title = label(plan != nullptr ? std::string_view(plan->title) : std::string_view());
  return title.empty() ? label(id) : title;
}

// The flowchart of `edges`. Nodes are called n0, n1, ... because a page id may have slashes, or be a word of
// Mermaid's such as "end".
std::string flowchart(const Plans& plans, const std::vector<Edge>& edges) {
  std::map<std::string_view, std::string> names;
  for (const auto& [from, to] : edges) names[from] = names[to] = "";
  std::string out = "flowchart LR\n";
  std::size_t number = 0;
  for (auto& [id, name] : names) {
    name = "n" + std::to_string(number++);
    out += "  " + name + "[\"" + label_of(plans, id) + "\"]\n";
  }
  for (const auto& [from, to] : edges) out += "  " + names[from] + " --> " + names[to] + "\n";
  return out;
}

std::size_t count_nodes(const std::vector<Edge>& edges) {
  Ids ids;
  for (const auto& [from, to] : edges) {
    ids.insert(from);
    ids.insert(to);
  }
  return ids.size();
}

std::string more(std::size_t count, const std::string& one, const std::string& several) {
  return std::to_string(count) + " more " + (count == 1 ? one : several);
}

std::string left_out(std::size_t nodes, std::size_t edges) {
  std::vector<std::string> parts;
  if (nodes > 0) parts.push_back(more(nodes, "module", "modules"));
  if (edges > 0) parts.push_back(more(edges, "dependency", "dependencies"));
  return parts.empty() ? "" : " (and " + utils::join(parts, ", ") + ")";
}

void add_diagram(std::vector<ModuleDiagram>& out, const std::string& caption, const Edges& edges) {
  if (edges.empty()) return;
  // A node that lost all its edges to the limit is not drawn either, so what is left out is only known
  // afterwards.
  const std::vector<std::string_view> nodes = ranked_nodes(edges);
  std::vector<Edge> shown = shown_edges(edges, nodes);
  const std::string rest = left_out(nodes.size() - count_nodes(shown), edges.size() - shown.size());
  out.push_back({caption + rest, std::move(shown)});
}

}  // namespace

std::vector<ModuleDiagram> module_diagrams(const PagePlan& plan, const Plans& plans,
                                           const ModuleGraph& graph) {
  std::vector<ModuleDiagram> out;
  if (plan.type == "architecture" || plan.type == "overview") {
    add_diagram(out, "Dependencies between the top modules", between_top_modules(plans, graph));
  } else if (plan_type(plan).unit) {
    const Ids inside = with_descendants(plans, plan);
    add_diagram(out, "What this module depends on, and what depends on it",
                neighbours(plan, inside, plans, graph));
    add_diagram(out, "Dependencies between the parts of this module",
                between_children(plan, inside, plans, graph));
  }
  return out;
}

std::vector<Diagram> page_diagrams(const PagePlan& plan, const Plans& plans, const ModuleGraph& graph) {
  std::vector<Diagram> out;
  for (const ModuleDiagram& diagram : module_diagrams(plan, plans, graph))
    out.emplace_back(diagram.caption, flowchart(plans, diagram.edges));
  return out;
}

}  // namespace ossilar::workers::wiki
