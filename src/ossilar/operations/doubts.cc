// `now` is left out where nobody can say where the text is: an empty one would read as a place.
#include "ossilar/operations/doubts.h"

#include <algorithm>

#include "ossilar/operations/schemas.h"

namespace ossilar::operations {

using workers::wiki::citation_label;

Map doubt_list(const std::vector<workers::wiki::Doubt>& doubts, std::size_t most) {
  Map list = Map::array();
  for (std::size_t i = 0; i < std::min(doubts.size(), most); ++i) {
    Map shown{{"section", doubts[i].section},
              {"citation", citation_label(doubts[i].citation)},
              {"state", workers::wiki::state_name(doubts[i].state)}};
    if (doubts[i].now) shown["now"] = citation_label(*doubts[i].now);
    list.push_back(std::move(shown));
  }
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

}  // namespace ossilar::operations
