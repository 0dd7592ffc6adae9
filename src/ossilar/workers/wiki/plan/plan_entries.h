// Applies the `[[page]]` entries of `ossilar.toml` to the derived plan. host/plan_maker.cc calls it once
// saved pages have their ids (kept_ids.h), one plan at a time.
#pragma once

#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// `pages` with the entries of the configuration applied in their order: an entry amends the page with its id
// in place, or adds one at the end. An entry may name a page that a later one adds.
//
// Throws utils::ConfigError, which names entry and key, for an entry whose parent or related page is not in
// the plan, whose title another page has, or that would make a page its own ancestor. `pages` is a copy, so a
// failure leaves nothing half applied.
std::vector<PagePlan> amend_plan(std::vector<PagePlan> pages, const WikiConfig& config,
                                 const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
