#include "ossilar/mcp/wiki_provider.h"

#include <sys/stat.h>

#include "ossilar/source/indexer.h"
#include "ossilar/workers/wiki/open_wiki.h"

namespace ossilar::mcp {
namespace {

// What an opened wiki depends on: the branch, and the configuration file as the system knows it.
std::string dependencies_of(const std::filesystem::path& root) {
  std::string text = source::read_checkout(root).branch;
  struct stat info {};
  if (stat((root / "ossilar.toml").c_str(), &info) != 0) return text;
  for (const auto part :
       {static_cast<std::int64_t>(info.st_ino), static_cast<std::int64_t>(info.st_size),
        static_cast<std::int64_t>(info.st_mtim.tv_sec), static_cast<std::int64_t>(info.st_mtim.tv_nsec)}) {
    text += ' ' + std::to_string(part);
  }
  return text;
}

}  // namespace

std::shared_ptr<workers::wiki::WikiGenerator> WikiProvider::get() {
  const std::lock_guard lock(mutex_);
  std::string now = dependencies_of(root_);
  if (!wiki_ || now != opened_for_) {
    wiki_ = workers::wiki::open_wiki(root_, "ossilar mcp");
    wiki_->adopt_unseen_branch();
    opened_for_ = std::move(now);
  }
  return wiki_;
}

std::shared_ptr<workers::wiki::WikiGenerator> WikiProvider::opened() const {
  const std::lock_guard lock(mutex_);
  return wiki_;
}

}  // namespace ossilar::mcp
