// One refresh of an index: what of the tree is as it was known, what is read anew, and which symbols the new
// texts have.
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

// By the place of the file in a listing; none for one that is not there any more.
using Looks = std::vector<std::optional<Look>>;

// What the tree at `root` holds of each of `files`. Where they are many, two threads look at a half each.
Looks look_at(Tree& tree, const std::filesystem::path& root, const std::vector<Listed>& files);

struct Refreshed {
  Entries entries;
  bool is_complete = false;              // nothing was left that the next refresh has to look at files for
  bool lacks_tool = false;               // symbols were wanted, and the tool is not there
  std::vector<utils::IoError> failures;  // of the files that could not be read, with the system's reasons
};

// `files` are in order, `looks` what was seen of them, `known` the entries of the refresh before, and `now`
// is nanoseconds since the epoch. A tool that fails is noted by utils::degraded("symbols", ...).
Refreshed refreshed(Tree& tree, const std::vector<Listed>& files, const Looks& looks, const Entries& known,
                    std::int64_t now, bool symbols, const utils::Progress& progress);

}  // namespace ossilar::source
