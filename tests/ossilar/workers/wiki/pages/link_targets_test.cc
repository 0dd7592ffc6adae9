// The link definitions of page files, before and after a page gets another id.
#include "ossilar/workers/wiki/pages/link_targets.h"

#include <gtest/gtest.h>

#include "ossilar/workers/wiki/finalize.h"

namespace ossilar::workers::wiki {
namespace {

constexpr const char* kAuthored = "See [A] and [a.cc:L1].\n\n[mine]: alpha.md\n";

std::string page_with(const std::string& definitions) {
  return std::string("# T\n\n") + kAuthored + "\n<!-- ossilar:generated -->\n" +
         "<!-- What follows is rebuilt by every save; write above the marker. -->\n\n" +
         "```mermaid\n[node]: alpha.md\n```\n\n" + definitions +
         "\n<!-- ossilar:record\n{\"type\": \"module\", \"title\": \"T\"}\n-->\n";
}

TEST(LinkTargets, FollowARenamingAndNothingElseChanges) {
  const struct {
    const char* why;
    const char* page_id;
    Renamed renamed;
    const char* before;
    const char* after;
  } kRows[] = {
      {"a page beside it", "beta", {"alpha", "gamma"}, "[A]: alpha.md\n", "[A]: gamma.md\n"},
      {"into a folder", "beta", {"alpha", "core/gamma"}, "[A]: alpha.md\n", "[A]: core/gamma.md\n"},
      {"from below", "core/b", {"core/a", "top"}, "[A]: ../core/a.md\n", "[A]: ../top.md\n"},
      {"several labels", "b", {"a", "c"}, "[A]: a.md\n[Former]: a.md\n", "[A]: c.md\n[Former]: c.md\n"},
      {"another page whose id begins alike", "b", {"a", "c"}, "[A]: a-2.md\n", "[A]: a-2.md\n"},
      {"a citation of a file of the name", "b", {"a", "c"}, "[x]: ../../a.md#L1\n", "[x]: ../../a.md#L1\n"},
      {"the page itself, deeper now",
       "a",
       {"a", "core/net/a"},
       "[s%20.cc:L1]: ../../src/s%20.cc#L1-L2\n[B]: b.md\n",
       "[s%20.cc:L1]: ../../../../src/s%20.cc#L1-L2\n[B]: ../../b.md\n"},
      {"the page itself, higher now",
       "core/a",
       {"core/a", "a"},
       "[s:L1]: ../../../s#L1\n[B]: ../core/b.md\n[Self]: ../core/a.md\n",
       "[s:L1]: ../../s#L1\n[B]: core/b.md\n[Self]: a.md\n"},
      {"what a hand put there",
       "a",
       {"a", "core/a"},
       "[W]: https://example.org/a.md\n[R]: /a.md\n[H]: #a\n",
       "[W]: https://example.org/a.md\n[R]: /a.md\n[H]: #a\n"},
      {"no definition at all", "a", {"a", "c"}, "", ""},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(relinked(page_with(row.before), row.page_id, row.renamed), page_with(row.after)) << row.why;
    const bool has_link = std::string(row.before) != row.after && row.renamed.from != row.page_id;
    EXPECT_EQ(links_to(page_with(row.before), row.page_id, row.renamed.from),
              has_link || std::string(row.why) == "the page itself, higher now")
        << row.why;
  }
}

TEST(LinkTargets, TakeAnyTextForAPage) {
  for (const char* text : {"", "\n", "[A]: a.md", "<!-- ossilar:generated -->", "# T\n\n[A]: a.md\n"}) {
    EXPECT_EQ(relinked(text, "b", {"a", "c"}), text);
    EXPECT_FALSE(links_to(text, "b", "a")) << text;
  }
  // A page whose record is gone, and whose last line has no line feed.
  EXPECT_EQ(relinked("# T\n\nx\n\n<!-- ossilar:generated -->\n\n[A]: a.md", "b", {"a", "c"}),
            "# T\n\nx\n\n<!-- ossilar:generated -->\n\n[A]: c.md");
}

}  // namespace
}  // namespace ossilar::workers::wiki
