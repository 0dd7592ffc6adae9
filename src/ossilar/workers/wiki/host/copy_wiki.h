// Moving a wiki between the database of this machine and one that machines share (`ossilar store copy`).
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "ossilar/store/store_copy.h"
#include "ossilar/utils/task.h"

namespace ossilar::workers::wiki {

// The name of the database in `.ossilar`.
inline constexpr const char* kLocalStore = "local";

struct WikiCopy {
  std::size_t branches = 0;
  store::CopyCounts counts = {};  // of all branches together
};

// Copies all branches of the wiki of the repository at `root` from one store into another; each is
// kLocalStore or an address "postgresql://...". Each branch is copied and compared under the write locks of
// this machine and of both stores. What was done stays when it fails, and the next call copies the rest.
//
// A copy into the local store also brings in the page files of the branch that is checked out, as they are
// this machine's working copy of the other one.
//
// Throws utils::ConfigError for names that are none, store::CopyRefused, store::LockBusy,
// store::StorageError.
WikiCopy copy_wiki(const std::filesystem::path& root, const std::string& from, const std::string& to,
                   const utils::Progress& progress);

}  // namespace ossilar::workers::wiki
