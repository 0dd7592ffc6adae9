// As JSON and not as the texts one after another: where one diagram ends and the next begins is a part of the
// text, so different diagrams cannot give the same one.
#include "ossilar/workers/wiki/diagrams.h"

#include "ossilar/utils/json.h"

namespace ossilar::workers::wiki {

std::string _serialize_diagrams(const std::vector<Diagram>& diagrams) {
  Map list = Map::array();
  for (const auto& [caption, text] : diagrams) list.push_back(Map::array({caption, text}));
  return utils::json_text(list);
}

}  // namespace ossilar::workers::wiki
