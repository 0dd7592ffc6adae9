// The store in one SQLite file.
#pragma once

#include <filesystem>
#include <memory>

#include "ossilar/store/repository.h"

namespace ossilar::store {

// Opens the database `file`, creating it and its tables where they are missing and bringing an older schema
// up to date. Throws StorageError that names the file for one that is no database, is damaged, belongs to
// another program or has a schema newer than this program knows; the file is then as it was.
//
// Several stores, in this process or others, may have one file open. A write that throws is not stored,
// unless it was the commit itself that failed: then the next read tells, which no snapshot of before answers.
std::unique_ptr<WikiStore> open_sqlite_store(const std::filesystem::path& file);

}  // namespace ossilar::store
