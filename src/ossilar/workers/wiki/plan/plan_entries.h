// Applying the `[[page]]` entries of `ossilar.toml` to the derived plan.
#pragma once

#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// `pages` with the entries of the configuration applied, in their order: amended in place, or added at the
// end. Throws utils::ConfigError for an entry that names a parent or related page that is in no plan, gives a
// title that another page has, or would make a page its own ancestor.
std::vector<PagePlan> amend_plan(std::vector<PagePlan> pages, const WikiConfig& config,
                                 const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
