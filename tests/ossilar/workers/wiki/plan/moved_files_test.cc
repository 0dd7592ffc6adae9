#include "ossilar/workers/wiki/plan/moved_files.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/source_tree.h"

namespace ossilar::workers::wiki {
namespace {

using ossilar::testing::tree_of;
using ossilar::testing::TreeFile;

TEST(MovedFiles, FollowsContentsThenFoldersAndNeverGuesses) {
  struct Row {
    const char* why;
    std::vector<TreeFile> now;
    std::vector<std::pair<std::string, std::string>> saved;  // path and content; in order
    std::vector<std::string> places;
  };
  const std::vector<Row> rows = {
      {"the same path, whatever it holds",
       {{"a.c", 9, {}, {}, {}, "new"}, {"b.c", 9, {}, {}, {}, "A"}},
       {{"a.c", "A"}},
       {"a.c"}},
      {"one file of this content, under any name",
       {{"lib/z.c", 9, {}, {}, {}, "A"}},
       {{"a.c", "A"}},
       {"lib/z.c"}},
      {"of two copies the one of its name",
       {{"lib/z.c", 9, {}, {}, {}, "A"}, {"lib/a.c", 9, {}, {}, {}, "A"}},
       {{"src/a.c", "A"}},
       {"lib/a.c"}},
      {"of two of its name the one whose folders are alike",
       {{"l/b/a.c", 9, {}, {}, {}, "A"}, {"l/c/a.c", 9, {}, {}, {}, "A"}},
       {{"src/b/a.c", "A"}},
       {"l/b/a.c"}},
      {"two that are equally good",
       {{"l/a.c", 9, {}, {}, {}, "A"}, {"m/a.c", 9, {}, {}, {}, "A"}},
       {{"src/a.c", "A"}},
       {""}},
      {"a copy that the page had itself is no move",
       {{"b.c", 9, {}, {}, {}, "A"}},
       {{"a.c", "A"}, {"b.c", "A"}},
       {"", "b.c"}},
      {"a file of a line or two is everywhere",
       {{"b/__init__.py", 1, {}, {}, {}, "A"}},
       {{"a/__init__.py", "A"}},
       {""}},
      {"a folder moved and its files were edited",
       {{"n/a.c", 9, {}, {}, {}, "new"}, {"n/b.c", 9, {}, {}, {}, "B"}},
       {{"o/a.c", "A"}, {"o/b.c", "B"}},
       {"n/a.c", "n/b.c"}},
      {"all of them",
       {{"n/i/a.c", 9, {}, {}, {}, "new"}, {"n/b.c", 9, {}, {}, {}, "new"}},
       {{"o/b.c", "B"}, {"o/i/a.c", "A"}},
       {"n/b.c", "n/i/a.c"}},
      {"one file of the name alone is no move",
       {{"n/a.c", 9, {}, {}, {}, "new"}},
       {{"o/a.c", "A"}, {"o/b.c", "B"}},
       {"", ""}},
      {"two of five neither",
       {{"n/a.c", 9, {}, {}, {}, "new"}, {"n/b.c", 9, {}, {}, {}, "new"}},
       {{"o/a.c", ""}, {"o/b.c", ""}, {"o/c.c", ""}, {"o/d.c", ""}, {"o/e.c", ""}},
       {"", "", "", "", ""}},
      {"the folder is still there",
       {{"n/a.c"}, {"n/b.c"}, {"o/c.c"}},
       {{"o/a.c", ""}, {"o/b.c", ""}},
       {"", ""}},
      {"two folders that it may have become",
       {{"n/a.c"}, {"n/b.c"}, {"m/a.c"}, {"m/b.c"}},
       {{"o/a.c", ""}, {"o/b.c", ""}},
       {"", ""}},
      {"of these the one with a file of the same content",
       {{"n/a.c"}, {"n/b.c"}, {"m/a.c"}, {"m/b.c", 9, {}, {}, {}, "B"}},
       {{"o/a.c", ""}, {"o/b.c", "B"}},
       {"m/a.c", "m/b.c"}},
      {"a link in its place", {{"a.c", 9, source::FileKind::symlink}}, {{"a.c", ""}}, {""}},
  };
  for (const Row& row : rows) {
    const source::SourceIndex index = tree_of(row.now);
    SavedPage saved{.type = "module", .files = {}};
    for (const auto& [path, content] : row.saved) {
      const source::SourceIndex then = tree_of({{path, 9, {}, {}, {}, content}});
      saved.files.push_back({path, then.find(path)->sha256, false});
    }
    const auto places = MovedFiles({&saved}, index).places(saved);
    EXPECT_EQ(std::vector<std::string>(places.begin(), places.end()), row.places) << row.why;
  }
}

}  // namespace
}  // namespace ossilar::workers::wiki
