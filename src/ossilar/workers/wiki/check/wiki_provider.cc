// Each call compares branch, configuration and database with those of the last opening. That costs the stamps
// of git's files and two stat() calls. Notifications would cost less and come too late: a request right after
// a switch of branches must not be answered from the former branch.
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

// The branch, and which `ossilar.toml` there is in which state. By inode, size and time and not by content,
// as every request asks; a file that is written without any change only costs another opening.
std::string configuration_of(const std::filesystem::path& root, source::CheckoutReader& checkout) {
  std::string text = checkout.read().branch;
  struct stat info {};
  if (stat((root / "ossilar.toml").c_str(), &info) != 0) return text;
  append(text,
         {static_cast<std::int64_t>(info.st_ino), info.st_size, info.st_mtim.tv_sec, info.st_mtim.tv_nsec});
  return text;
}

// Which file the database is. Once it was removed and made anew, an open connection would go on writing to
// the removed file, and nobody would see it. Its state does not matter: every save changes it.
std::string database_of(const std::filesystem::path& root) {
  std::string text;
  struct stat info {};
  if (stat((root / ".ossilar/index.db").c_str(), &info) == 0)
    append(text, {static_cast<std::int64_t>(info.st_dev), static_cast<std::int64_t>(info.st_ino)});
  return text;
}

}  // namespace

// Pages are taken over outside the mutex: that may embed many passages, and other requests would wait. While
// another holds the write lock it is left to the next call, as reading must not wait for a save.
std::shared_ptr<Wiki> WikiProvider::get() {
  auto wiki = current();
  adopt_arrivals(*wiki, WhenBusy::skip);
  return wiki;
}

// The configuration is looked at before the opening: if it changes during the opening, the next call sees a
// difference and opens again. The database is looked at after it, because the opening may create it.
std::shared_ptr<Wiki> WikiProvider::current() {
  const std::lock_guard lock(mutex_);
  std::string configuration = configuration_of(root_, checkout_);
  if (!wiki_ || configuration != configuration_ || database_of(root_) != database_) {
    wiki_.reset();  // first: a failed opening must not leave the former wiki to be used
    std::shared_ptr<Wiki> wiki = open_wiki(root_, writer_, Process::stays);
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
