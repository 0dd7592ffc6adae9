// Ids, titles and links of planned pages.
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

// The page id that `path` suggests: lower case, every character that no id may have as '-'.
std::string slug_of(std::string_view path);

// `text` as a title: one line of at most kLongestTitle characters without brackets, which would end a link.
std::string title_of(std::string_view text);

// "1,234 files".
std::string counted(std::int64_t count, std::string_view noun);

// Hands out each id and each title once; titles are one and the same when they are as link labels.
class UniqueNames {
 public:
  std::string id(std::string_view path);
  std::string title(std::string_view text);

 private:
  std::unordered_set<std::string> ids_;
  std::unordered_set<std::string> titles_;
};

// Sets what follows from the pages' parents: `level`, and `children`, which are the modules among the pages
// that name this one as parent. A topic below a module is about several modules, so it makes the module no
// parent of it. Every parent must be a page, and no page its own ancestor.
void link_pages(std::vector<PagePlan>& pages);

}  // namespace ossilar::workers::wiki
