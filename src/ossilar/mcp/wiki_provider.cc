#include "ossilar/mcp/wiki_provider.h"

#include <sys/stat.h>

#include <cstdint>
#include <vector>

#include "ossilar/source/indexer.h"
#include "ossilar/workers/wiki/open_wiki.h"

namespace ossilar::mcp {
namespace {

void append(std::string& text, const std::vector<std::int64_t>& numbers) {
  for (const std::int64_t number : numbers) text += ' ' + std::to_string(number);
}

// What an opened wiki depends on: the branch, the configuration file as it is, and which file the database
// is, as one that was removed and made anew leaves who has it open alone with the former.
std::string dependencies_of(const std::filesystem::path& root) {
  std::string text = source::read_checkout(root).branch;
  struct stat info {};
  if (stat((root / "ossilar.toml").c_str(), &info) == 0) {
    append(text,
           {static_cast<std::int64_t>(info.st_ino), info.st_size, info.st_mtim.tv_sec, info.st_mtim.tv_nsec});
  }
  if (stat((root / ".ossilar/index.db").c_str(), &info) == 0)
    append(text, {static_cast<std::int64_t>(info.st_dev), static_cast<std::int64_t>(info.st_ino)});
  return text;
}

}  // namespace

std::shared_ptr<workers::wiki::WikiGenerator> WikiProvider::get() {
  const std::lock_guard lock(mutex_);
  if (!wiki_ || dependencies_of(root_) != opened_for_) {
    wiki_.reset();
    auto wiki = workers::wiki::open_wiki(root_, "ossilar mcp");
    wiki->adopt_unseen_branch();
    opened_for_ = dependencies_of(root_);
    wiki_ = std::move(wiki);
  }
  return wiki_;
}

std::shared_ptr<workers::wiki::WikiGenerator> WikiProvider::opened() const {
  const std::lock_guard lock(mutex_);
  return wiki_;
}

}  // namespace ossilar::mcp
