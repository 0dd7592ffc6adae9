// Lets saved pages keep their ids when the tree changes. A page id is a promise: pages and people link to it.
// But planner.h names pages after folders and what their files share, which move, split and merge.
// host/plan_maker.h calls it between derive_plan() and amend_plan().
//
// Thread-safety: no state is kept, so any thread may call it. It does not fail.
#pragma once

#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/plan/saved_page.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// `derived`, a plan of derive_plan() over `index`, with the ids of saved pages. A page rests on those of its
// sources that it cites, or on all if it cites none. Then:
//
// - A saved page whose id is in the plan stays there as long as the two have a source in common. If they have
//   none, it may go where its files went, as below, and the page that was derived for its id gets a number.
// - Any other saved module is that page of the plan to which most of what it rests on went, if more than half
//   of that is still there and no saved page is that page yet. Of several, the one with most in it gets it.
// - If another got it, the saved module stays in the plan as a page of its own beside it, with those of its
//   files that are still there, again if these are more than half. Other pages leave these files to it, but
//   for those that they had at their own save; a page that is left with none is not planned. Files that were
//   found at other paths do not count when the page that has them there was saved with them: these may be
//   copies.
// - What is left is not planned.
//
// `named` are page ids that stay where they are derived, as the configuration names them; pages that it
// defines are not to be among `saved`. Each page id and title of the result is unique if those of `derived`
// are.
//
// The same arguments give the same plan. Saving a page as it is planned keeps the plan, unless several saved
// pages contend for one page: then it may change what files they get, but no id.
std::vector<PagePlan> keep_ids(std::vector<PagePlan> derived, const SavedPages& saved,
                               const source::SourceIndex& index, const StringSet& named);

}  // namespace ossilar::workers::wiki
