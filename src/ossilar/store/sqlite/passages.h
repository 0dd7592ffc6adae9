// Passages, their vectors, and the chunks by which pages hold them. Internal to this room.
//
// A passage is kept once by the hash of its text, its vectors by model beside it. Within the database it has
// a number, so that what a page holds lies together, which hashes would spread over all of it. A page's
// chunks name the passages that it holds, in order. Each function is to be called within a transaction, so
// that it sees one state.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// A stored vector. Throws DamagedError for one that is cut off.
Vector vector_of(const std::string& bytes);

SharedPassages read_shared_passages(Connection& connection, const std::string& branch,
                                    const std::string& page_id, const std::string& model);

std::map<std::string, Vector> read_vectors(Connection& connection, const std::string& model,
                                           const std::vector<std::string>& hashes);

std::vector<Map> read_chunks(Connection& connection, const std::string& branch, const std::string& page_id);

// WikiStore::store_chunks(). Throws utils::Error for a refusal; the transaction is then to be rolled back.
void replace_chunks(Connection& connection, std::int64_t page_key, const std::vector<Map>& chunks,
                    const PassageHashes& shared_before);

// Changing the model; see WikiStore's members of the same meaning.
std::optional<std::string> read_other_model(Connection& connection, const std::string& model);
std::size_t count_lacking(Connection& connection, const std::string& model);
std::vector<PassageText> read_lacking(Connection& connection, const std::string& model,
                                      const std::string& after, std::size_t limit);
void keep_vectors(Connection& connection, const std::string& model,
                  const std::map<std::string, Vector>& vectors);
bool drop_other_models(Connection& connection, const std::string& model);

}  // namespace ossilar::store
