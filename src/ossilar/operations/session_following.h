// Follows moved citations where a session reads or saves a page, if the wiki's owner wants that (`[wiki]
// follow`). Everybody else asks for it with `ossilar sync`.
//
// Threads: as operations (operation.h). Failures: a page that cannot be followed is read as it is, and the
// reason logged; utils::Cancelled passes.
#pragma once

#include <string>
#include <vector>

#include "ossilar/operations/operation.h"
#include "ossilar/workers/wiki/citing/page_state.h"

namespace ossilar::operations {

// Before the page is read. Writes the page if it has moved citations, and waits for the write lock then.
void follow_before_reading(const Asked& asked, const std::string& page_id);

// Before `content` is saved as the page or as a section of it: the same with new lines; `followed` gets each.
std::string follow_before_saving(const Asked& asked, const std::string& page_id, const std::string& content,
                                 std::vector<workers::wiki::Doubt>& followed);

}  // namespace ossilar::operations
