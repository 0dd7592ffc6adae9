// The plan of a wiki: which pages it has, what each is about and which sources it rests on.
#pragma once

#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The plan that the tree itself suggests: `overview`, `architecture`, and a page per module with a size that
// an author can handle. The same tree gives the same plan, but for titles and descriptions, in which
// `repository_name` stands.
std::vector<PagePlan> derive_plan(const source::SourceIndex& index, const std::string& repository_name);

}  // namespace ossilar::workers::wiki
