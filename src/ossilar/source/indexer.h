// Keeps a source index in step with a working tree.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/utils/files.h"

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

// Called now and then while files are read: how many of how many are done.
using Progress = std::function<void(std::size_t done, std::size_t total)>;

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
  std::shared_ptr<const SourceIndex> refresh(const Progress& progress = {});

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

// What version control says of a folder.
struct Checkout {
  std::filesystem::path root;  // of the working tree; outside git the folder itself
  // What the repository is called, in every clone the same: by the address it was cloned from, else by its
  // folder.
  std::string name;
  bool in_git = false;
  std::string branch = "default";  // "HEAD" when detached
  std::string commit;              // 40 hexadecimal digits; "" before the first commit and outside git
};

// Reads the checkout whose working tree has `root` as its root (the caller has found it). Runs no program,
// whatever the repository's configuration says. Throws utils::Error for a repository that is damaged or bare,
// has something else than a regular file where git keeps one, or includes other files in its configuration.
Checkout read_checkout(const std::filesystem::path& root);

// Reads the checkout of one root again and again: from git's files only when one of them changed since.
//
// Thread-safety: read() may be called from any thread.
class CheckoutReader {
 public:
  // `root` as for read_checkout().
  explicit CheckoutReader(std::filesystem::path root) : root_(std::move(root)) {}
  Checkout read();

 private:
  const std::filesystem::path root_;
  std::mutex mutex_;
  std::optional<Checkout> last_;                              // guarded by mutex_, as is the next
  std::map<std::filesystem::path, utils::FileStamp> stamps_;  // of what it was read from
};

// The root of the working tree that `folder` is in: the nearest folder upward that holds `.git`, `.ossilar`
// or `ossilar.toml`; none when there is none.
std::optional<std::filesystem::path> find_root(const std::filesystem::path& folder);

}  // namespace ossilar::source
