// What an author of a page needs to know: its purpose, its sources with their symbols, excerpts.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Bytes of grounding text a page gets: some 10,000 tokens, which leaves an agent's context room for the work.
inline constexpr std::size_t kGroundingBudget = std::size_t{40} * 1024;

struct Grounding {
  std::string text;          // Markdown; at most kGroundingBudget bytes
  std::vector<Map> symbols;  // {"name", "kind", "file", "line"} of the page's sources, the most telling first
  std::vector<std::string> files;  // the page's source files
};

// Reads a source file's text; none when it cannot be had.
using ReadSource = std::function<std::optional<std::string>(const std::string& path)>;

// The grounding of `plan`. The same plan, index and files give the same grounding. `steering` is included as
// given.
Grounding gather_grounding(const PagePlan& plan, const Plans& plans, const source::SourceIndex& index,
                           const std::string& steering, const ReadSource& read);

}  // namespace ossilar::workers::wiki
