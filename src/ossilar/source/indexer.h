// Keeps a source index in step with a working tree.
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

// Where the index is kept between runs: opaque records by path.
class RecordStore {
 public:
  RecordStore() = default;
  RecordStore(const RecordStore&) = delete;
  RecordStore& operator=(const RecordStore&) = delete;
  virtual ~RecordStore() = default;
  // Calls `take` for each record, in any order, and not always from the thread that calls the indexer.
  using Take = std::function<void(std::string_view path, std::string_view record)>;
  virtual void load(const Take& take) = 0;
  // A text replaces the record of its path, none removes it.
  virtual void update(const std::map<std::string, std::optional<std::string>>& changes) = 0;
};

// The index of the repository at `root`: the files that git tracks and the working tree holds, or outside git
// every file below `root` but those of version control systems. What `excluded` names (relative paths, each a
// file or a folder with all below it) is left out. Nothing outside `root` is ever read: no symbolic link is
// followed.
//
// Thread-safety: refresh() may be called from any thread; calls run one after the other.
class Indexer {
 public:
  struct Options {
    std::filesystem::path root;  // absolute, with symbolic links resolved
    std::vector<std::string> excluded;
    RecordStore* records = nullptr;            // must outlive the indexer; null keeps nothing
    bool symbols = true;                       // ask the symbol tool
    std::function<std::int64_t()> clock = {};  // nanoseconds since the epoch; the system's clock when empty
    bool watch = false;  // hear of changes instead of looking, where the system tells of them
  };
  explicit Indexer(Options options);
  ~Indexer();

  // Looks at every file's metadata, reads what changed since the last time, and gives the index as of now:
  // the same object when nothing changed. A file counts as unchanged only when size, times, inode and device
  // are the same and its times are old enough that a later write must have moved them. Where the symbol tool
  // is missing, files have no symbols and utils::degraded("symbols", ...) is noted, on every call. With
  // Options::watch nothing is looked at when nothing was heard since the last look and that is not a minute
  // old: a write through a memory mapping or another hard link is not heard of. Throws utils::Error for a
  // root that cannot be listed or a repository that is damaged.
  std::shared_ptr<const SourceIndex> refresh(const utils::Progress& progress = {});

  // Paths that are no UTF-8 text and so are in no index, as text fit for messages.
  std::vector<std::string> skipped() const;

  // How many times refresh() has looked at every file.
  std::size_t looks() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// The text of `path`, one of the index's files, as of now; none when it is no longer a text file that may be
// read. Bytes that are not UTF-8 are replaced. No symbolic link is followed, on the way neither.
std::optional<std::string> read_source(const std::filesystem::path& root, const std::string& path);

}  // namespace ossilar::source
