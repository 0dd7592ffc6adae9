#include "ossilar/workers/wiki/check/wiki_provider.h"

#include <sys/stat.h>

#include <cstdint>
#include <vector>

#include "ossilar/source/checkout.h"
#include "ossilar/workers/wiki/check/arrivals.h"
#include "ossilar/workers/wiki/host/open_wiki.h"

namespace ossilar::workers::wiki {
namespace {

void append(std::string& text, const std::vector<std::int64_t>& numbers) {
  for (const std::int64_t number : numbers) text += ' ' + std::to_string(number);
}

// The branch, and the configuration file as it is.
std::string configuration_of(const std::filesystem::path& root, source::CheckoutReader& checkout) {
  std::string text = checkout.read().branch;
  struct stat info {};
  if (stat((root / "ossilar.toml").c_str(), &info) != 0) return text;
  append(text,
         {static_cast<std::int64_t>(info.st_ino), info.st_size, info.st_mtim.tv_sec, info.st_mtim.tv_nsec});
  return text;
}

// Which file the database is: one that was removed and made anew leaves who has it open alone with the
// former.
std::string database_of(const std::filesystem::path& root) {
  std::string text;
  struct stat info {};
  if (stat((root / ".ossilar/index.db").c_str(), &info) == 0)
    append(text, {static_cast<std::int64_t>(info.st_dev), static_cast<std::int64_t>(info.st_ino)});
  return text;
}

}  // namespace

// Pages are taken over outside the mutex, as that waits for the write lock; when it cannot be had, the next
// call tries again.
std::shared_ptr<Wiki> WikiProvider::get() {
  auto wiki = current();
  adopt_arrivals(*wiki, WhenBusy::skip);
  return wiki;
}

// The configuration is looked at before the opening and the database, which the opening may make, after it: a
// change in between is found by the next call.
std::shared_ptr<Wiki> WikiProvider::current() {
  const std::lock_guard lock(mutex_);
  std::string configuration = configuration_of(root_, checkout_);
  if (!wiki_ || configuration != configuration_ || database_of(root_) != database_) {
    wiki_.reset();
    std::shared_ptr<Wiki> wiki = open_wiki(root_, "ossilar mcp", Process::stays);
    configuration_ = std::move(configuration);
    database_ = database_of(root_);
    wiki_ = std::move(wiki);
  }
  return wiki_;
}

std::shared_ptr<Wiki> WikiProvider::opened() const {
  const std::lock_guard lock(mutex_);
  return wiki_;
}

}  // namespace ossilar::workers::wiki
