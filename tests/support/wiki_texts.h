// A small source tree to cite, and saving a text as the host does, without a store.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/finalize.h"
#include "support/source_tree.h"

namespace ossilar::testing {

inline const source::SourceIndex& cited_tree() {
  static const source::SourceIndex index = tree_of({{"src/a.cc", 40},
                                                    {"src/__init__.py", 10},
                                                    {"src/snake_case_file.h", 7},
                                                    {"docs/漢 字.md", 3},
                                                    {"lib/Case.cc", 5},
                                                    {"lib/case.cc", 9},
                                                    {"deep/er/util.cc", 12},
                                                    {"deep/util.cc", 4},
                                                    {"we[ird].c", 2},
                                                    {"void/empty.cc", 0},
                                                    {"other/empty.cc", 3},
                                                    {"logo.png", 5, source::FileKind::binary}});
  return index;
}

inline workers::wiki::Brackets brackets_of(std::string_view text) {
  return workers::wiki::read_brackets(text, cited_tree(), [](std::string_view label) {
    return label == "Other page" || label == "Früher" ? std::optional<std::string>("parts/other")
                                                      : std::nullopt;
  });
}

// The page that a save of `content` stores, under a title that needs escapes.
inline workers::wiki::FinalizedPage saved(const std::string& content) {
  workers::wiki::PagePlan plan;
  plan.page_id = "parts/mine";
  plan.title = "A *fine* [title] #";
  plan.source_files = {"src/a.cc", "we`ird.c"};
  const std::string text = workers::wiki::authored_text(content);
  return workers::wiki::assemble_page(plan, workers::wiki::split_text(text),
                                      {{"Parts", "graph LR\n  a --> b\n"}},
                                      workers::wiki::page_links(brackets_of(text), plan.page_id, "wiki"));
}

}  // namespace ossilar::testing
