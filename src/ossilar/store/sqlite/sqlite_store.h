// The store in one SQLite file. host/open_wiki.cc opens it for a Wiki, check/wiki_check.cc to look for
// damage; both see no more of this room than this header.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

#include "ossilar/store/repository.h"

namespace ossilar::store {

// Opens the database `file`. Creates the file and its tables where they are missing, and migrates an older
// schema. Throws StorageError for a file that is no database, is damaged, belongs to another program or has a
// newer schema than this program knows; the file is then as it was.
//
// Several stores, in this process or others, may have one file open. A write that throws is not stored,
// unless it was the commit itself that failed: that is known only by reading, and the next read goes to the
// file, not to a snapshot.
//
// Thread-safety: may be called from any thread; the store as WikiStore. Several threads may read while one
// writes, but they read one after the other.
std::unique_ptr<WikiStore> open_sqlite_store(const std::filesystem::path& file);

// The version of the tables that this program makes. It reads every one from 1 up, and migrates it.
std::int64_t sqlite_schema_version();

}  // namespace ossilar::store
