// Graphviz is given boxes of a size that is worked out here from the length of the label, and no text: to
// measure it, it would load a font library and look for fonts.
#include "ossilar/web/diagram_layout.h"

#include <graphviz/gvc.h>
#include <graphviz/gvplugin.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "ossilar/utils/text.h"

extern "C" gvplugin_library_t gvplugin_dot_layout_LTX_library;

namespace ossilar::web {
namespace {

constexpr std::size_t kMostKept = 4096;    // layouts; one is some kilobytes
constexpr std::size_t kLongestLabel = 36;  // characters
constexpr double kCharacter = 7.1;         // points: the width of a character at 13 px, with some room
constexpr double kPadding = 24;
constexpr double kHeight = 30;
constexpr double kPointsPerInch = 72;
constexpr double kDegrees = 57.29577951308232;

std::size_t count_characters(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

void set(void* object, const char* name, const std::string& value) {
  std::string attribute(name);
  std::string text(value);
  std::string fallback;
  agsafeset(object, attribute.data(), text.data(), fallback.data());
}

// The layout is linked and not looked for: Graphviz finds its plugins by a file at a fixed place, which a
// program that brings its libraries along does not have.
const lt_symlist_t kPlugins[] = {
    {"gvplugin_dot_layout_LTX_library", &gvplugin_dot_layout_LTX_library},
    {nullptr, nullptr},
};

struct Closed {
  void operator()(graph_t* graph) const { agclose(graph); }
};

DiagramLayout::Arrow arrow_of(edge_t* edge, double height) {
  DiagramLayout::Arrow arrow;
  const splines* lines = ED_spl(edge);
  if (lines == nullptr) return arrow;
  for (int i = 0; i < static_cast<int>(lines->size); ++i) {
    const bezier& curve = lines->list[i];
    pointf last{};
    for (int at = 0; at < static_cast<int>(curve.size); ++at) {
      last = curve.list[at];
      arrow.path += (at == 0 ? "M" : at == 1 ? " C" : " ") + number(last.x) + "," + number(height - last.y);
    }
    const pointf tip = curve.eflag != 0 ? curve.ep : last;
    arrow.tip_x = tip.x;
    arrow.tip_y = height - tip.y;
    const pointf before = curve.eflag != 0 ? last : curve.list[std::max(0, static_cast<int>(curve.size) - 2)];
    arrow.angle = std::atan2(before.y - tip.y, tip.x - before.x) * kDegrees;
  }
  return arrow;
}

}  // namespace

struct DiagramLayouts::Context {
  Context() : gvc(gvContextPlugins(static_cast<const lt_symlist_t*>(kPlugins), 0)) {
    agseterrf([](char*) { return 0; });
  }
  ~Context() {
    if (gvc != nullptr) gvFreeContext(gvc);
  }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  std::shared_ptr<const DiagramLayout> lay_out(const DiagramGraph& graph) const {
    if (gvc == nullptr) return nullptr;
    std::string name = "modules";
    const std::unique_ptr<graph_t, Closed> drawn(agopen(name.data(), Agstrictdirected, nullptr));
    set(drawn.get(), "rankdir", "LR");
    set(drawn.get(), "nodesep", "0.2");
    set(drawn.get(), "ranksep", "0.6");
    std::vector<node_t*> nodes;
    nodes.reserve(graph.labels.size());
    for (std::size_t i = 0; i < graph.labels.size(); ++i) {
      std::string id = "n" + std::to_string(i);
      node_t* node = agnode(drawn.get(), id.data(), 1);
      set(node, "shape", "box");
      set(node, "label", "");
      set(node, "fixedsize", "true");
      set(node, "height", std::to_string(kHeight / kPointsPerInch));
      const double width = static_cast<double>(count_characters(graph.labels[i])) * kCharacter + kPadding;
      set(node, "width", std::to_string(width / kPointsPerInch));
      nodes.push_back(node);
    }
    std::vector<edge_t*> edges;
    edges.reserve(graph.edges.size());
    for (const auto& [from, to] : graph.edges)
      edges.push_back(agedge(drawn.get(), nodes[from], nodes[to], nullptr, 1));
    if (gvLayout(gvc, drawn.get(), "dot") != 0) return nullptr;
    auto layout = std::make_shared<DiagramLayout>();
    const boxf box = GD_bb(drawn.get());
    layout->width = box.UR.x;
    layout->height = box.UR.y;
    for (node_t* node : nodes) {
      const double width = ND_width(node) * kPointsPerInch;
      const pointf middle = ND_coord(node);
      layout->boxes.push_back(
          {middle.x - width / 2, layout->height - middle.y - kHeight / 2, width, kHeight});
    }
    for (edge_t* edge : edges) layout->arrows.push_back(arrow_of(edge, layout->height));
    gvFreeLayout(gvc, drawn.get());
    return layout;
  }

  GVC_t* gvc;
};

std::string diagram_label(const std::string& text) {
  std::string line = utils::printable_line(text);
  if (count_characters(line) <= kLongestLabel) return line;
  std::size_t at = 0;
  for (std::size_t i = 0; i + 1 < kLongestLabel; ++i) at += utils::utf8_size(line, at);
  return line.substr(0, at) + "\xE2\x80\xA6";
}

DiagramLayouts::DiagramLayouts() = default;
DiagramLayouts::~DiagramLayouts() = default;

std::shared_ptr<const DiagramLayout> DiagramLayouts::layout(const DiagramGraph& graph) {
  std::string key;
  for (const std::string& label : graph.labels) key += std::to_string(count_characters(label)) + ",";
  for (const auto& [from, to] : graph.edges) key += std::to_string(from) + ">" + std::to_string(to) + ",";
  const std::lock_guard lock(mutex_);
  if (const auto known = made_.find(key); known != made_.end()) return known->second;
  if (!context_) context_ = std::make_unique<Context>();
  if (made_.size() >= kMostKept) made_.clear();
  return made_[key] = context_->lay_out(graph);
}

}  // namespace ossilar::web
