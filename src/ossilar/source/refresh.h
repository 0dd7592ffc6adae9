// One refresh of an index: which files are as they were known, what the others contain, and which symbols the
// new texts have. indexer.cc calls look_at() and then refreshed(), one refresh at a time.
//
// Nothing is written: when a function throws, the caller still has the entries of the refresh before.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "ossilar/source/file_reader.h"
#include "ossilar/source/listing.h"
#include "ossilar/source/record.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/task.h"

namespace ossilar::source {

// One for each file of a listing, in its order; none for a file that is not there.
using Looks = std::vector<std::optional<Look>>;

// The metadata of each of `files` in the tree at `root`. `tree` has the same root and is used by this thread.
// When the files are many, a second thread looks at half of them. Throws IoError when the system is out of
// descriptors or memory, or `root` cannot be opened.
Looks look_at(Tree& tree, const std::filesystem::path& root, const std::vector<Listed>& files);

struct Refreshed {
  Entries entries;
  bool is_complete = false;              // false when the tool failed: the next refresh must ask it again
  bool lacks_tool = false;               // symbols were wanted, and the tool is missing
  std::vector<utils::IoError> failures;  // of the files that could not be read, with the system's reasons
};

// Makes the entries of `files`, which are in the order of their paths, from `looks`, their metadata, and
// `known`, the entries of the refresh before. `now` is nanoseconds since the epoch, taken before the looks.
// `progress`, which may be empty, is called on this thread while files are read. A tool that is missing or
// fails is noted by utils::degraded("symbols", ...) on this thread. Throws as look_at(), and what `progress`
// throws.
Refreshed refreshed(Tree& tree, const std::vector<Listed>& files, const Looks& looks, const Entries& known,
                    std::int64_t now, bool symbols, const utils::Progress& progress);

}  // namespace ossilar::source
