// Who is at work on which page. Internal to this room; called by operations.h. The functions do what
// WikiStore's of the same meaning say. Threads and errors: as history.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

PageClaim write_claim(Connection& connection, const std::string& branch, const PageClaim& claim,
                      std::int64_t now);
void drop_claim(Connection& connection, const std::string& branch, const std::string& page_id,
                const std::string& holder);
std::vector<PageClaim> read_claims(Connection& connection, const std::string& branch, std::int64_t now);

}  // namespace ossilar::store
