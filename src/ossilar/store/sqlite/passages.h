// Passages, their vectors, and the chunks by which pages hold them. Internal to this room; called by
// operations.h.
//
// A passage is stored once, by the hash of its text, with one vector per model. Its key in the database is a
// number, so that the passages of a page lie close together; keyed by hash, they would be spread over the
// whole file. A page's chunks name the passages that it holds, in order; a passage that no chunk names is
// dropped.
//
// Thread-safety: one thread for a connection. Every function is called within a transaction, so that it sees
// one state, and so that the caller can roll back when one throws: SQLite::Exception, utils::Error for what
// is refused, DamagedError for what is stored wrongly. The functions do what WikiStore's of the same meaning
// say.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// WikiStore::shared_passages().
SharedPassages read_shared_passages(Connection& connection, const std::string& branch,
                                    const std::string& page_id, const std::string& model);

// WikiStore::vectors().
std::map<std::string, Vector> read_vectors(Connection& connection, const std::string& model,
                                           const std::vector<std::string>& hashes);

// WikiStore::chunks().
std::vector<Map> read_chunks(Connection& connection, const std::string& branch, const std::string& page_id);

// WikiStore::store_chunks(), but for the words, which make_words_due() defers. When it throws, some of it is
// written: the transaction must be rolled back.
void replace_chunks(Connection& connection, std::int64_t page_key, const std::vector<Map>& chunks,
                    const PassageHashes& shared_before);

// Changing the model: WikiStore's other_model(), count_without_vector(), passages_without_vector(),
// add_vectors() and keep_model(), in this order.
std::optional<std::string> read_other_model(Connection& connection, const std::string& model);
std::size_t count_lacking(Connection& connection, const std::string& model);
std::vector<PassageText> read_lacking(Connection& connection, const std::string& model,
                                      const std::string& after, std::size_t limit);
void keep_vectors(Connection& connection, const std::string& model,
                  const std::map<std::string, Vector>& vectors);
bool drop_other_models(Connection& connection, const std::string& model);

}  // namespace ossilar::store
