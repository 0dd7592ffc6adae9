// What an author is told of a text beside the answer's own warnings: brackets that mean nothing, and what the
// text lost. orchestrator.cc puts it into the answer of a save, asking/text_check.cc beside a refusal.
//
// Thread-safety: functions without state; any thread may call. Nothing here fails.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/host/planned_wiki.h"

namespace ossilar::workers::wiki {

// Warnings of one kind that an answer names; the rest is counted. Enough to mend a page by, and few enough
// for an answer to stay readable and not fill an agent's context.
inline constexpr std::size_t kMostWarnings = 20;

// Adds what `describe` says of each of the faults, which are of one kind.
template <class Fault, class Describe>
void append_warnings(std::vector<std::string>& warnings, const std::vector<Fault>& faults,
                     Describe describe) {
  const std::size_t told = std::min(faults.size(), kMostWarnings);
  for (std::size_t i = 0; i < told; ++i) warnings.push_back(describe(faults[i]));
  if (faults.size() > told)
    warnings.push_back("citation: " + std::to_string(faults.size() - told) + " more of this kind");
}

// Why brackets of a text are no citations or links, each with what may be meant. `empty` are citations whose
// lines hold nothing that could be evidence.
std::vector<std::string> bracket_warnings(const Brackets& brackets, const std::vector<std::string>& empty,
                                          const PlannedWiki& planned);

// That two sections have the same heading: a save of one, and a link to it, would always mean the first.
std::vector<std::string> twin_warnings(const std::string& authored);

// What a save is about to replace, and by what.
struct Replaced {
  std::string before, now;       // the authored texts
  std::size_t cited_before = 0;  // numbers of citations
  std::size_t cited_now = 0;
};

// That most of the page's citations or sections are gone. A save of a part never loses the other sections.
std::vector<std::string> loss_warnings(const Replaced& replaced);

}  // namespace ossilar::workers::wiki
