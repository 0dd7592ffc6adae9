// Stale marks, cited texts, the wiki's state and the versions of pages. Internal to this room; called by
// operations.h. The functions do what WikiStore's of the same meaning say. Threads and errors: as rows.h.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ossilar/store/postgresql/session.h"
#include "ossilar/store/repository.h"

namespace ossilar::store::postgresql {

// The statement that sets marks, page id to reason.
Statement marking(const std::string& branch, const std::map<std::string, std::string>& reasons);
std::map<std::string, std::string> read_marks(Session& session, const std::string& branch);

void write_cited_texts(Session& session, std::int64_t page_key, const std::set<std::string>& cited,
                       const std::map<std::string, std::string>& texts);
std::optional<std::string> read_cited_text(Session& session, const std::string& hash);

Statement stating(const std::string& branch, const WikiStateFields& fields);
std::optional<WikiStateFields> read_state(Session& session, const std::string& branch);

std::set<std::string> read_cited_versions(Session& session, std::int64_t page_key);
std::vector<std::string> read_branches(Session& session);

}  // namespace ossilar::store::postgresql
