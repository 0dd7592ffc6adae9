// Plans looked at by tests: a page by its id, what holds of every plan, and the trees that they are made
// from.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/types.h"
#include "support/source_tree.h"

namespace ossilar::testing {

using workers::wiki::PagePlan;

inline const PagePlan& page(const std::vector<PagePlan>& pages, const std::string& id) {
  static const PagePlan kNone;
  const auto found =
      std::find_if(pages.begin(), pages.end(), [&](const PagePlan& p) { return p.page_id == id; });
  EXPECT_NE(found, pages.end()) << "no page " << id;
  return found == pages.end() ? kNone : *found;
}

// Whether two modules may rest on one file. Derived ones never do.
enum class Sharing { none, allowed };

// What holds of every plan, whatever the tree.
inline void expect_sound(const std::vector<PagePlan>& pages, Sharing sharing = Sharing::none) {
  std::set<std::string> ids, titles, covered;
  for (const PagePlan& p : pages) {
    EXPECT_TRUE(workers::wiki::is_page_id(p.page_id)) << p.page_id;
    EXPECT_TRUE(ids.insert(p.page_id).second) << p.page_id;
    EXPECT_TRUE(titles.insert(p.title).second) << p.title;
    EXPECT_EQ(p.title.find_first_of("[]\n\x1b"), std::string::npos) << p.title;
    EXPECT_LE(p.title.size(), 200U);
    EXPECT_FALSE(p.description.empty()) << p.page_id;
    if (p.type != "module") continue;
    EXPECT_FALSE(p.source_files.empty()) << p.page_id;
    for (const std::string& file : p.source_files)
      EXPECT_TRUE(covered.insert(file).second || sharing == Sharing::allowed) << file << " is on two pages";
  }
  for (const PagePlan& p : pages) {
    if (!p.parent.empty()) {
      EXPECT_THAT(page(pages, p.parent).children, ::testing::Contains(p.page_id));
      EXPECT_EQ(p.level, page(pages, p.parent).level + 1) << p.page_id;
    }
    for (const std::string& id : p.children) EXPECT_EQ(page(pages, id).parent, p.page_id);
    for (const std::string& id : p.related_pages) EXPECT_TRUE(ids.count(id) > 0 && id != p.page_id) << id;
  }
}

inline std::vector<TreeFile> files_in(const std::string& folder, const std::string& stem, int count,
                                      std::int64_t lines, const std::string& ending = ".c") {
  std::vector<TreeFile> files;
  files.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i)
    files.push_back({std::string(folder).append(stem).append(std::to_string(i)).append(ending), lines});
  return files;
}

inline std::vector<TreeFile> operator+(std::vector<TreeFile> left, const std::vector<TreeFile>& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

}  // namespace ossilar::testing
