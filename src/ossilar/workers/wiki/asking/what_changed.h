// What the author of a page that no longer holds has to know: of each citation in doubt the sentence, and how
// the cited text changed; and which symbols of the cited files came, went or changed.
// operations/page_context.cc and the prompt `refresh-stale` begin with it.
//
// Threads: any thread may call. Failures: what the store, the page file and the sources throw; an old text
// that is not to be had is said to be so.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// Bytes of Markdown; citations beyond them are counted.
inline constexpr std::size_t kChangesBudget = std::size_t{8} * 1024;

// The lines of a place as they are now; none where nobody can say the place, or it is gone.
std::optional<std::string> text_now(const Wiki& wiki, const std::optional<Citation>& place);

// "" for a page without a row, and for one whose cited files are all as they were. Runs the symbol tool on
// earlier versions of the others; without the tool, or the earlier version, nothing is said of their symbols.
std::string what_changed(const Wiki& wiki, const PlannedWiki& planned, const store::StoredRows& rows,
                         const std::string& page_id);

}  // namespace ossilar::workers::wiki
