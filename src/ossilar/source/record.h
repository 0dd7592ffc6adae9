// What the indexer remembers of a file between two refreshes, and its text form between two runs.
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/file_reader.h"
#include "ossilar/source/source_index.h"

namespace ossilar::source {

struct Entry {
  Stamp stamp;                                    // when the file was read; empty for a file that is not read
  bool is_settled = false;                        // a change since then must have changed the stamp
  bool has_symbols = false;                       // the symbol tool was asked (or there is nothing to ask it)
  std::shared_ptr<const SourceFile> file;         // never null
  bool operator==(const Entry&) const = default;  // of the same object
};

using Entries = std::vector<Entry>;  // in the order of their paths

inline const std::string& path_of(const Entry& entry) { return entry.file->path; }

// UTF-8 where the file's texts are. The path is not in it.
std::string record_text(const Entry& entry);

// None for a text of another format or one that is damaged: the file is read again then.
std::optional<Entry> read_record(std::string_view path, std::string_view text);

}  // namespace ossilar::source
