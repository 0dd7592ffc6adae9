// The plan of a wiki: which pages it has, what each is about and which sources it rests on.
#pragma once

#include <string>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// The plan that the tree itself suggests: `overview`, `architecture`, and a page per module with a size that
// an author can handle. The same tree gives the same plan, but for titles and descriptions, in which
// `repository_name` stands.
std::vector<PagePlan> derive_plan(const source::SourceIndex& index, const std::string& repository_name);

// `pages` with the entries of the configuration applied, in their order: amended in place, or added at the
// end. Throws utils::ConfigError for an entry that names a parent or related page that is in no plan, gives a
// title that another page has, or would make a page its own ancestor.
std::vector<PagePlan> amend_plan(std::vector<PagePlan> pages, const WikiConfig& config,
                                 const source::SourceIndex& index);

// Whether the glob matches the whole path: `*` and `?` stay within a part, `**` crosses parts, `[a-z]` is a
// set; a pattern that names a folder matches everything below it. Linear in the product of the lengths, no
// recursion.
bool glob_matches(std::string_view pattern, std::string_view path);

}  // namespace ossilar::workers::wiki
