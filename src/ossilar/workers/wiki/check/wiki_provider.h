// The wiki that a server works on. Each server (mcp/server.cc, mcp/http/server.cc, web/server.cc) has one
// provider; every request that needs the wiki asks it again, and mcp/page_watch.cc looks at what is open.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "ossilar/source/checkout.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// Opens the wiki of a repository when it is first needed: so a server answers at once, and changes nothing
// for a client that only asks for its capabilities. Opens another one when the working tree is on another
// branch, when `ossilar.toml` changed, or when the database is another file. A request at work keeps the
// former wiki until it ends.
//
// Thread-safety: every member may be called from any thread. An opening that fails leaves no wiki open.
class WikiProvider {
 public:
  // `root` and `writer` as for open_wiki().
  explicit WikiProvider(std::filesystem::path root, std::string writer = "ossilar mcp")
      : root_(std::move(root)), writer_(std::move(writer)), checkout_(root_) {}

  // The wiki as of now, with what came by version control taken over. Throws what open_wiki() and
  // adopt_arrivals() throw; the next call tries again.
  std::shared_ptr<Wiki> get();

  // The wiki that was opened last, or null. Opens nothing: a watch alone is no reason to create a database.
  std::shared_ptr<Wiki> opened() const;

  const std::filesystem::path& root() const { return root_; }

 private:
  std::shared_ptr<Wiki> current();

  const std::filesystem::path root_;
  const std::string writer_;
  source::CheckoutReader checkout_;
  mutable std::mutex mutex_;
  std::shared_ptr<Wiki> wiki_;  // guarded by mutex_, as is what it was opened for
  std::string configuration_;   // what configuration_of() said
  std::string database_;        // what database_of() said
};

}  // namespace ossilar::workers::wiki
