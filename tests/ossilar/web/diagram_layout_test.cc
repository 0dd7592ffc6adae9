#include "ossilar/web/diagram_layout.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/web/page_view.h"
#include "support/wiki_repo.h"

// Graphviz does not free what it read of its list of plugins, some 4 KB for each context; a server has one.
// AddressSanitizer asks for this function by its name.
extern "C" const char* __lsan_default_suppressions() { return "leak:libgvc.so\n"; }

namespace ossilar::web {
namespace {

TEST(DiagramLayoutTest, PutsWhatDependsToTheLeftAndNothingOverAnother) {
  DiagramLayouts layouts;
  const DiagramGraph graph{.labels = {"a", "a longer label", "c"}, .edges = {{0, 1}, {0, 2}, {1, 2}}};
  const auto layout = layouts.layout(graph);
  ASSERT_NE(layout, nullptr);
  ASSERT_EQ(layout->boxes.size(), 3U);
  ASSERT_EQ(layout->arrows.size(), 3U);
  EXPECT_LT(layout->boxes[0].x + layout->boxes[0].width, layout->boxes[1].x);
  EXPECT_LT(layout->boxes[1].x + layout->boxes[1].width, layout->boxes[2].x);
  EXPECT_GT(layout->boxes[1].width, layout->boxes[0].width);
  for (const DiagramLayout::Box& box : layout->boxes) {
    EXPECT_GE(box.x, -1);
    EXPECT_LE(box.x + box.width, layout->width + 1);
    EXPECT_LE(box.y + box.height, layout->height + 1);
  }
  for (const DiagramLayout::Arrow& arrow : layout->arrows) EXPECT_EQ(arrow.path.front(), 'M');
  EXPECT_NEAR(layout->arrows[2].tip_x, layout->boxes[2].x, 1) << "an arrow ends at its box";
  EXPECT_EQ(layouts.layout(graph), layout) << "made once";
}

TEST(DiagramLayoutTest, CutsLongLabelsBetweenCharacters) {
  std::string long_label;
  for (int i = 0; i < 50; ++i) long_label += "\xC3\xA4";
  EXPECT_EQ(diagram_label(long_label), long_label.substr(0, 70) + "\xE2\x80\xA6");
  EXPECT_EQ(diagram_label("a\nb"), "a b");
}

TEST(DiagramLayoutTest, APageShowsItsModulesWithLinks) {
  testing::WikiRepo repo;
  // The page that the tree gives would have all files first.
  repo.dir.write("src/other.cpp", "int other();\n");
  repo.dir.write("src/beta.h", "int beta();\n");
  repo.dir.write("src/alpha.cpp", "#include \"beta.h\"\nint alpha();\nint b();\nint c();\n");
  repo.dir.write(
      "ossilar.toml",
      "[[page]]\nid = \"alpha\"\ntitle = \"<Alpha> & co\"\ntype = \"module\"\nsources = [\"src/alpha.cpp\"]\n"
      "[[page]]\nid = \"src\"\nsources = [\"src/other.cpp\"]\n"
      "[[page]]\nid = \"beta\"\ntitle = \"Beta\"\ntype = \"module\"\nsources = [\"src/beta.*\"]\n");
  const std::shared_ptr<workers::wiki::Wiki> wiki = repo.open();
  const auto site = Site::now(wiki);
  const Edition edition;
  const std::string html = page_document({*site, edition, "pages/alpha.html"}, *site->page("alpha")).html;
  EXPECT_THAT(html, ::testing::HasSubstr("<a class=\"node self\" href=\"../pages/alpha.html\"><rect"));
  EXPECT_THAT(html, ::testing::HasSubstr(">&lt;Alpha&gt; &amp; co</text>"));
  EXPECT_THAT(html, ::testing::HasSubstr("<a class=\"node\" href=\"../pages/beta.html\"><rect"));
}

}  // namespace
}  // namespace ossilar::web
