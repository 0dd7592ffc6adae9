// The last versions of each page. Internal to this room; called by operations.h. The functions do what
// WikiStore's of the same meaning say. Threads and errors: as rows.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ossilar/store/postgresql/session.h"
#include "ossilar/store/repository.h"

namespace ossilar::store::postgresql {

void write_versions(Session& session, const std::string& branch, const std::string& page_id,
                    const std::vector<PageVersion>& versions, std::size_t most);
std::vector<PageVersion> read_versions(Session& session, const std::string& branch,
                                       const std::string& page_id);
std::optional<std::string> read_version_text(Session& session, const std::string& branch,
                                             const std::string& page_id, std::int64_t number);
std::map<std::string, std::string> read_newest_texts(Session& session, const std::string& branch,
                                                     const std::vector<std::string>& page_ids);
void renumber_versions(Session& session, const std::string& branch, const std::string& from,
                       const std::string& to);

std::set<std::string> read_pages_with_history(Session& session, const std::string& branch);
void put_versions(Session& session, const std::string& branch, const std::string& page_id,
                  const std::vector<PageVersion>& versions);

}  // namespace ossilar::store::postgresql
