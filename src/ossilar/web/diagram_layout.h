// Lays out the module diagrams of pages, by Graphviz.
//
// Only the positions are Graphviz's: the drawing is a template (templates/diagram.html), so its text is the
// page's own, can be selected and is coloured by the style sheet; and no font of the machine decides how it
// looks, so the same wiki gives the same bytes anywhere.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ossilar::web {

// What to lay out: the labels of nodes, and edges as indices into them.
struct DiagramGraph {
  std::vector<std::string> labels;
  std::vector<std::pair<std::size_t, std::size_t>> edges;
};

// In points from the upper left corner.
struct DiagramLayout {
  struct Box {
    double x = 0, y = 0, width = 0, height = 0;  // x and y of its upper left corner
  };
  struct Arrow {
    std::string path;                        // of an SVG path
    double tip_x = 0, tip_y = 0, angle = 0;  // of its head; degrees, clockwise from "to the right"
  };
  double width = 0, height = 0;
  std::vector<Box> boxes;  // as DiagramGraph::labels
  std::vector<Arrow> arrows;
};

// The label as it stands in its box: cut where it would make the box too wide.
std::string diagram_label(const std::string& text);

// Thread-safety: every member may be called from any thread; Graphviz works for one at a time. Failure: null
// where Graphviz cannot be used, as without its plugins.
class DiagramLayouts {
 public:
  DiagramLayouts();
  ~DiagramLayouts();
  DiagramLayouts(const DiagramLayouts&) = delete;
  DiagramLayouts& operator=(const DiagramLayouts&) = delete;

  // Made once for each graph and kept, up to some number of them.
  std::shared_ptr<const DiagramLayout> layout(const DiagramGraph& graph);

 private:
  struct Context;
  std::mutex mutex_;
  std::unique_ptr<Context> context_;  // guarded by mutex_, as is the next; made when first needed
  std::unordered_map<std::string, std::shared_ptr<const DiagramLayout>> made_;
};

}  // namespace ossilar::web
