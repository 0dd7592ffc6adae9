// Finding passages: by their words in an FTS5 table beside the chunks, and by their vectors. Internal to this
// room; each function is to be called within a transaction.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// The table of words: a row a chunk, whose texts are spelled out, identifiers as their parts too.
// https://www.sqlite.org/fts5.html: unicode61 folds case and accents, porter takes English endings off.
inline constexpr const char* kCreateWordIndex =
    "CREATE VIRTUAL TABLE words USING fts5 (title, section, text, tokenize = 'porter unicode61')";

// The row of a chunk's words is the page's key and the position in the page in one number.
#define OSSILAR_POSITION_BITS "20"

// Makes the words of the page with this key those of its chunks as stored now.
void index_words(Connection& connection, std::int64_t page_key);

// Notes that this is to be done before words are searched. Indexing costs more than storing what is indexed,
// and of pages together much less than of one page after another, so no save does it.
void make_words_due(Connection& connection, std::int64_t page_key);
std::size_t count_due_words(Connection& connection);
// Indexes `most` of the pages that are due.
void index_due_words(Connection& connection, std::size_t most);

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
