// `now` is left out where nobody can say where the text is: an empty one would read as a place.
#include "ossilar/operations/doubts.h"

#include <algorithm>

#include "ossilar/operations/schemas.h"

namespace ossilar::operations {

using workers::wiki::citation_label;

Map doubt_map(const workers::wiki::Doubt& doubt) {
  Map shown{{"section", doubt.section},
            {"citation", citation_label(doubt.citation)},
            {"state", workers::wiki::state_name(doubt.state)}};
  if (doubt.now) shown["now"] = citation_label(*doubt.now);
  return shown;
}

Map doubt_list(const std::vector<workers::wiki::Doubt>& doubts, std::size_t most) {
  Map list = Map::array();
  for (std::size_t i = 0; i < std::min(doubts.size(), most); ++i) list.push_back(doubt_map(doubts[i]));
  return list;
}

Map doubt_schema() {
  return schema::object(
      {{"section", schema::text("the `##` heading that it stands under")},
       {"citation", schema::text("as the page has it")},
       {"state", schema::text("moved, changed, gone, or ambiguous: in several places now")},
       {"now", schema::text("where the text is; of a changed one what stands in its place")}},
      {"section", "citation", "state"});
}

Map claim_schema() {
  Map claim = doubt_schema();
  claim["properties"]["state"] =
      schema::text("same, moved, changed, gone, ambiguous: in several places now, or unknown: what it cited");
  claim["properties"]["sentence"] = schema::text("what the page says there, on one line");
  claim["properties"]["line"] = schema::count("of the page file");
  for (const char* key : {"sentence", "line"}) claim["required"].push_back(key);
  return claim;
}

}  // namespace ossilar::operations
