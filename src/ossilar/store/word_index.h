// Finding passages: by their words in an FTS5 table beside the chunks, and by their vectors. Internal to this
// room; each function is to be called within a transaction.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/store/connection.h"
#include "ossilar/store/repository.h"

namespace ossilar::store {

// The table of words: a row a chunk, whose texts are spelled out, identifiers as their parts too.
// https://www.sqlite.org/fts5.html: unicode61 folds case and accents, porter takes English endings off.
inline constexpr const char* kCreateWordIndex =
    "CREATE VIRTUAL TABLE words USING fts5 (title, section, text, tokenize = 'porter unicode61')";

// Indexes every chunk that there is.
void fill_word_index(Connection& connection);

// Makes the words of the page with this key those of its chunks as stored now.
void index_words(Connection& connection, std::int64_t page_key);

// WikiStore::match_words().
std::vector<FoundPassage> find_words(Connection& connection, const std::string& branch,
                                     const std::string& words, const PassageFilter& filter,
                                     std::size_t limit);

struct QueryVector {
  const std::string& model;
  const Vector& vector;
};

// WikiStore::nearest().
std::vector<FoundPassage> find_nearest(Connection& connection, const std::string& branch,
                                       const QueryVector& query, const PassageFilter& filter,
                                       std::size_t limit);

}  // namespace ossilar::store
