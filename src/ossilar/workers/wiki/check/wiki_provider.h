// The wiki that a server works on, which outlives no change of branch or configuration.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "ossilar/source/checkout.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// Opens the wiki of a repository when it is first needed, so that a server is up at once, and changes nothing
// for a client that only asks what there is. Opens it anew when the working tree is on another branch, or
// `ossilar.toml` or the database is another file than at the last opening; who still works on the former one
// ends with it.
//
// Thread-safety: every member may be called from any thread.
class WikiProvider {
 public:
  // `root` as for open_wiki().
  explicit WikiProvider(std::filesystem::path root) : root_(std::move(root)), checkout_(root_) {}

  // The wiki as of now. Throws what open_wiki() throws; the next call tries again.
  std::shared_ptr<Wiki> get();

  // The wiki that was opened last, or null.
  std::shared_ptr<Wiki> opened() const;

  const std::filesystem::path& root() const { return root_; }

 private:
  std::shared_ptr<Wiki> current();

  const std::filesystem::path root_;
  source::CheckoutReader checkout_;
  mutable std::mutex mutex_;
  std::shared_ptr<Wiki> wiki_;  // guarded by mutex_, as is what it was opened for
  std::string configuration_;
  std::string database_;
};

}  // namespace ossilar::workers::wiki
