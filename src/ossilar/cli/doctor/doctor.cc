// Shows what was examined. Something odd is an answer and not a failure, so it ends with the exit code of a
// refusal, as with `check`.
#include <algorithm>
#include <string>

#include "ossilar/cli/commands.h"
#include "ossilar/cli/doctor/examinations.h"

namespace ossilar::cli {

int run_doctor(const Place& place, Output& output) {
  const std::vector<Examined> all = examine(place.root_or_here());
  Map list = Map::array();
  for (const Examined& each : all) {
    list.push_back(
        Map{{"about", each.about}, {"ok", each.is_fine}, {"found", each.found}, {"advice", each.advice}});
    const std::string label =
        each.about + std::string(15 - std::min<std::size_t>(each.about.size(), 14), ' ');
    output.line(output.styled(each.is_fine ? Style::good : Style::bad, each.is_fine ? "ok   " : "odd  ") +
                label + each.found);
    if (!each.advice.empty()) output.line(std::string(20, ' ') + "to mend it: " + each.advice);
  }
  const bool is_well = std::all_of(all.begin(), all.end(), [](const Examined& each) { return each.is_fine; });
  output.document(Map{{"ok", is_well}, {"examined", list}});
  return is_well ? kDone : kRefused;
}

}  // namespace ossilar::cli
