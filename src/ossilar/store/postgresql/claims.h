// Who is at work on which page. Internal to this room; called by operations.h. The functions do what
// WikiStore's of the same meaning say. Threads and errors: as rows.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/store/postgresql/session.h"
#include "ossilar/store/repository.h"

namespace ossilar::store::postgresql {

PageClaim write_claim(Session& session, const std::string& branch, const PageClaim& claim, std::int64_t now);
// What frees the page.
Statement releasing(const std::string& branch, const std::string& page_id, const std::string& holder);
std::vector<PageClaim> read_claims(Session& session, const std::string& branch, std::int64_t now);

}  // namespace ossilar::store::postgresql
