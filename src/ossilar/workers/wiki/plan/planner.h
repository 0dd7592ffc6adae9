// The plan of a wiki: which pages it has, what each is about and which sources it rests on.
// host/plan_maker.cc derives it whenever the index has changed, one plan at a time, lets kept_ids.h give it
// the ids of saved pages, and plan_entries.h apply the configuration.
//
// Thread-safety: no state is kept, so any thread may call it. It does not fail: an empty index gives the two
// pages about the whole, without sources.
#pragma once

#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The plan that the tree itself suggests: `overview` and `architecture` first, then a page per module, of a
// size that an author can handle, each after its parent. A file is a source of one module page at most.
//
// The same tree gives the same plan in every checkout. Only titles and descriptions have `repository_name` in
// them, as a folder may be cloned under any name.
std::vector<PagePlan> derive_plan(const source::SourceIndex& index, const std::string& repository_name);

}  // namespace ossilar::workers::wiki
