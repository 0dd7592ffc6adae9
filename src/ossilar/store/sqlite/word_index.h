// Finding passages: by their words, in an FTS5 table beside the chunks, and by their vectors. Internal to
// this room; called by operations.h.
//
// Thread-safety: one thread for a connection. Every function is called within a transaction, so that it sees
// one state, and throws SQLite::Exception, or DamagedError for what is stored wrongly.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/store/sqlite/connection.h"

namespace ossilar::store {

// The table of words: one row per chunk, with texts in which identifiers are spelled out as their parts too.
// FTS5's tokenizers (https://www.sqlite.org/fts5.html) do the rest: unicode61 folds case and accents, porter
// strips English endings.
inline constexpr const char* kCreateWordIndex =
    "CREATE VIRTUAL TABLE words USING fts5 (title, section, text, tokenize = 'porter unicode61')";

// The rowid of a chunk's words is the page's key shifted left by so many bits, plus the chunk's position. So
// a page's rows are one range, and can be deleted without a scan, as FTS5 can only look up rowids. 20 bits
// are a million chunks, more than a text of a mebibyte (kLargestContent) can have; a page file that is
// adopted has no such limit, but would need a million sections. A string, as it is pasted into SQL.
#define OSSILAR_POSITION_BITS "20"

// Replaces the words of the page by those of its chunks as stored now; removes them for a page without chunks
// or row.
void index_words(Connection& connection, std::int64_t page_key);

// Notes that the page has to be indexed before words are searched. Saves defer indexing, as it costs more
// than storing what is indexed, and much less for several pages together than for one after another.
void make_words_due(Connection& connection, std::int64_t page_key);
// How many pages wait to be indexed, of all branches.
std::size_t count_due_words(Connection& connection);
// Indexes at most `most` of them.
void index_due_words(Connection& connection, std::size_t most);

// WikiStore::match_words(), but indexes nothing; pages that wait are left out.
std::vector<FoundPassage> find_words(Connection& connection, const std::string& branch,
                                     const std::string& words, const PassageFilter& filter,
                                     std::size_t limit);

// Lifetime: model and vector must outlive it; it is made for one call.
struct QueryVector {
  const std::string& model;
  const Vector& vector;
};

// WikiStore::nearest().
std::vector<FoundPassage> find_nearest(Connection& connection, const std::string& branch,
                                       const QueryVector& query, const PassageFilter& filter,
                                       std::size_t limit);

}  // namespace ossilar::store
