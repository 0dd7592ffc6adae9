// Ids, titles and links of planned pages. planner.cc names its pages with it, plan_entries.cc links them
// again, and grounding/ uses the spelling of counts.
//
// Thread-safety: functions keep no state; a UniqueNames belongs to one thread. None fails unless it says so.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

inline constexpr std::string_view kOverviewId = "overview";
inline constexpr std::string_view kArchitectureId = "architecture";

// The page id that `path`, which is not empty, suggests: lower case, every byte that no id may have as '-'.
// Always a valid page id, short enough for UniqueNames to add a number. Different paths may give the same id.
std::string slug_of(std::string_view path);

// `text` as a title: one line of at most kLongestTitle characters, short enough for UniqueNames to add a
// number. Brackets become parentheses, as they would end a link. Of a longer text the end is kept.
std::string title_of(std::string_view text);

// "1,234 files", "1 file": `count`, not negative, with the noun's regular plural.
std::string counted(std::int64_t count, std::string_view noun);

// Gives out each id and each title once, by adding a number to a name that is taken ("a-2", "A (2)"). So the
// order of the calls decides which page gets the plain name. Titles are compared as link labels, since pages
// link by title.
class UniqueNames {
 public:
  std::string id(std::string_view path);
  std::string title(std::string_view text);

 private:
  std::unordered_set<std::string> ids_;
  std::unordered_set<std::string> titles_;
};

// Sets what follows from the pages' parents: `level`, and `children`, which are the modules among the pages
// that name this one as parent, in the order of the pages. A topic below a module is no child: it is about
// several modules, and a module with a child would no longer give a digest (gives_digest()).
//
// Throws std::out_of_range for a parent that is no page. With a page that is its own ancestor it does not
// end.
void link_pages(std::vector<PagePlan>& pages);

}  // namespace ossilar::workers::wiki
