// What the indexer remembers about a file between two refreshes, and its text form, which is stored between
// two runs. refresh.cc makes entries; indexer.cc loads and stores them.
//
// Thread-safety: every function may be called from any thread. An entry's file never changes.
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
  Stamp stamp;               // when the file was read; empty for a file that is not read
  bool is_settled = false;   // read steadily, and so old that a later write must change the stamp
  bool has_symbols = false;  // the symbol tool answered, or there is nothing to ask it
  std::shared_ptr<const SourceFile> file;  // never null
  // Compares the pointers, not the files: entries of equal content may differ.
  bool operator==(const Entry&) const = default;
};

using Entries = std::vector<Entry>;  // in the order of their paths

inline const std::string& path_of(const Entry& entry) { return entry.file->path; }

// The entry as a text. It is UTF-8 if the texts in it are. The path is not in it, as records are stored by
// path.
std::string record_text(const Entry& entry);

// The entry of a text that record_text() gave. None for a text of another format, or one that is damaged or
// cut off: the file is read again then.
std::optional<Entry> read_record(std::string_view path, std::string_view text);

}  // namespace ossilar::source
