// What an author of a page needs to know: its purpose, what it must hold, the pages around it, its sources
// with their symbols, and excerpts of them.
//
// Wiki::gather() calls it (host/wiki.cc): for the context that an agent asks for before it writes, and in the
// draft of each save, whose grounding hash is made of the text.
//
// Threads: a function without state, to be called from any thread; `read` is called on the caller's.
// Failures: a source that `read` gives nothing of has no excerpt; what `read` throws passes to the caller.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/plans.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Bytes of grounding text that a page gets: some 10,000 tokens at four bytes a token, which leaves an agent's
// context room for the work.
inline constexpr std::size_t kGroundingBudget = std::size_t{40} * 1024;

struct Grounding {
  std::string text;          // Markdown; at most kGroundingBudget bytes
  std::vector<Map> symbols;  // {"name", "kind", "file", "line"} of the page's sources, the most telling first
  std::vector<std::string> files;  // the page's source files, or those that it borrows when it has none
};

// Reads the text of a source file, by its path from the repository's root; none when it cannot be had.
using ReadSource = std::function<std::optional<std::string>(const std::string& path)>;

// The grounding of `plan`, one of `plans`. The same plans, index, steering and files give the same grounding.
// `steering` is included as given, cut where it is longer than its share.
Grounding gather_grounding(const PagePlan& plan, const Plans& plans, const source::SourceIndex& index,
                           const std::string& steering, const ReadSource& read);

// ---- Pieces, which context_text() takes too.

// What is said of pages around the page, by their ids: a sentence each.
using Abstracts = std::map<std::string, std::string>;

// What the page is for, what it must hold, what is asked of it, and the pages around it. `example` is a file
// to show a citation by, or null.
std::string brief_text(const PagePlan& plan, const Plans& plans, const std::string& steering,
                       const source::SourceFile* example, const Abstracts& abstracts);

// Those of the files that have lines, the ones that tell most first. Valid as long as the index.
std::vector<const source::SourceFile*> telling_files(const std::vector<std::string>& paths,
                                                     const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
