// Passages, their vectors, and the chunks by which pages hold them. Internal to this room; called by
// operations.h. The functions do what WikiStore's of the same meaning say. Threads and errors: as rows.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/store/postgresql/session.h"
#include "ossilar/store/repository.h"

namespace ossilar::store::postgresql {

SharedPassages read_shared_passages(Session& session, const std::string& branch, const std::string& page_id,
                                    const std::string& model);
std::map<std::string, Vector> read_vectors(Session& session, const std::string& model,
                                           const std::vector<std::string>& hashes);
std::vector<Map> read_chunks(Session& session, const std::string& branch, const std::string& page_id);

// The words of the chunks are indexed with them: unlike SQLite's, the index takes additions in passing (GIN
// with `fastupdate`), so nothing has to wait for a search.
void replace_chunks(Session& session, std::int64_t page_key, const std::vector<Map>& chunks);

std::optional<std::string> read_other_model(Session& session, const std::string& model);
std::size_t count_lacking(Session& session, const std::string& model);
std::vector<PassageText> read_lacking(Session& session, const std::string& model, const std::string& after,
                                      std::size_t limit);
void keep_vectors(Session& session, const std::string& model, const std::map<std::string, Vector>& vectors);
bool drop_other_models(Session& session, const std::string& model);

}  // namespace ossilar::store::postgresql
