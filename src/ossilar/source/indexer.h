// Keeps a source index in step with a working tree: the front door of this room. A wiki has one indexer and
// refreshes it whenever it prepares its plan, so before each draft (workers/wiki/host/wiki.cc). The host also
// calls read_source(), for the material of a page and for the lines that its citations name.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/utils/task.h"

namespace ossilar::source {

// Keeps the index between runs, as opaque records by path. workers/wiki/host/wiki.cc implements it on the
// store.
class RecordStore {
 public:
  RecordStore() = default;
  RecordStore(const RecordStore&) = delete;
  RecordStore& operator=(const RecordStore&) = delete;
  virtual ~RecordStore() = default;
  // Calls `take` for each record, in any order. Called at most once at a time, but not always on the thread
  // that calls the indexer. What it throws passes out of refresh(), and the next refresh loads again.
  using Take = std::function<void(std::string_view path, std::string_view record)>;
  virtual void load(const Take& take) = 0;
  // A text replaces the record of its path, none removes it. What it throws passes out of refresh(), and the
  // next refresh has the same changes to write. It may also drop the changes and return, as the store does
  // while another process writes: the files concerned are read again then by the next process.
  virtual void update(const std::map<std::string, std::optional<std::string>>& changes) = 0;
};

// The index of the repository at `root`: the files that git tracks and the working tree holds, or outside git
// every file below `root` but those of version control systems. No source file outside `root` is ever read,
// as no symbolic link is followed; the git directory may lie elsewhere.
//
// Thread-safety: every member may be called from any thread. Calls of refresh() run one after the other;
// skipped() and looks() do not wait for them.
class Indexer {
 public:
  struct Options {
    std::filesystem::path root;         // absolute, with symbolic links resolved
    std::vector<std::string> excluded;  // relative paths left out, each a file or a folder with all below it
    RecordStore* records = nullptr;     // must outlive the indexer; null keeps nothing
    bool symbols = true;                // ask the symbol tool
    std::function<std::int64_t()> clock = {};  // nanoseconds since the epoch; the system's clock when empty
    // For a process that stays: scan only after a notification, where inotify can be trusted.
    bool watch = false;
  };
  explicit Indexer(Options options);
  ~Indexer();

  // Looks at every file's metadata, reads what changed since the last time, and gives the index as of now:
  // the same object when nothing changed. A file counts as unchanged only when size, times, inode and device
  // are the same and its times are old enough that a later write must have moved them.
  //
  // With Options::watch the scan is skipped when there was no notification since the last one and that is
  // less than a minute old; a write through a memory mapping or another hard link is seen once that minute is
  // over.
  //
  // Without the symbol tool files have no symbols, and each call notes utils::degraded("symbols", ...) on the
  // calling thread. Throws utils::Error for a root that cannot be listed, a repository that is damaged, or
  // want of descriptors or memory; the index that was given last stays, and the next call does the work
  // again.
  std::shared_ptr<const SourceIndex> refresh(const utils::Progress& progress = {});

  // The paths that the last refresh left out because they are not UTF-8, escaped for messages.
  std::vector<std::string> skipped() const;

  // How many times refresh() has scanned the tree; tests tell by it that a watch spared one.
  std::size_t looks() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// The text of `path`, a path of the index, as of now; none when it is no text file any more, or unreadable.
// Bytes that are not UTF-8 are replaced by U+FFFD. No symbolic link is followed, neither at the path's end
// nor on the way. Throws IoError when `root` cannot be opened, or the system is out of descriptors or memory.
//
// Thread-safety: may be called from any thread.
std::optional<std::string> read_source(const std::filesystem::path& root, const std::string& path);

}  // namespace ossilar::source
