// HEAD is followed here, one reference at a time. A single call of libgit2 would follow it too, but would
// open each file on the way unchecked, and libgit2 blocks on a pipe (git_files.h). So each file is looked at
// before libgit2 opens it.
//
// The same walk names every file to `reads`, and CheckoutReader takes the file's stamp there. The order
// matters: the stamp is taken before the content is read. A change in between then shows as another stamp at
// the next read(). A stamp taken afterwards would go with the new content while the old one is cached.
#include "ossilar/source/checkout.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "ossilar/source/git/git.h"
#include "ossilar/source/git/git_files.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

std::string hex(const git_oid& id) {
  std::string text(GIT_OID_HEXSZ, '\0');
  git_oid_fmt(text.data(), &id);
  return text;
}

// "refs/heads/topic/x" is the branch "topic/x". The name goes into JSON and the database, so it must be
// UTF-8.
std::string branch_name(std::string_view reference) {
  for (const std::string_view prefix : {"refs/heads/", "refs/"}) {
    if (reference.substr(0, prefix.size()) == prefix) {
      reference.remove_prefix(prefix.size());
      break;
    }
  }
  return utils::valid_utf8(reference);
}

// The commit that the reference `name` leads to, or "" when there is none yet.
std::string commit_of(git_repository* repository, const char* name, const std::string& where) {
  git_oid id{};
  const int result = git_reference_name_to_id(&id, repository, name);
  if (result == GIT_ENOTFOUND) return "";
  if (result < 0) throw git_error("cannot read " + std::string(name) + " of " + where);
  return hex(id);
}

// The last part of an address such as "https://host/team/tool.git", "host:team/tool" or "/srv/tool/.".
std::string name_in_address(std::string address) {
  const auto drop = [&](std::string_view ending) {
    const bool ends = address.size() >= ending.size() &&
                      address.compare(address.size() - ending.size(), ending.size(), ending) == 0;
    if (ends) address.resize(address.size() - ending.size());
    return ends;
  };
  // These first, as they may follow ".git".
  while (drop("/") || drop("/.")) {
  }
  drop(".git");
  return address.substr(address.find_last_of("/:") + 1);
}

// "" for a repository that was not cloned. An unreadable configuration gives "" too: open_repository() has
// reported it already.
std::string origin_of(git_repository* repository) {
  git_config* opened = nullptr;
  if (git_repository_config_snapshot(&opened, repository) < 0) return "";
  const GitHandle<git_config> config(opened);
  const char* address = nullptr;
  const bool known = git_config_get_string(&address, config.get(), "remote.origin.url") == 0;
  return known ? utils::valid_utf8(address) : "";
}

// Called with the path of each file that a checkout is read from, before the file is read.
using Reads = std::function<void(const std::filesystem::path&)>;

// Names and looks at the places where the reference `name` may lie. A linked working tree keeps some
// references, such as HEAD, in a directory of its own and shares the others; both places are taken, so that
// libgit2's rule is not needed here.
void tell_reference(const Reads& reads, git_repository* repository, const std::string& name) {
  const std::filesystem::path own = git_repository_path(repository);
  const std::filesystem::path common = git_repository_commondir(repository);
  for (const auto& directory : {own, common}) {
    reads(directory / name);
    look_at_reference(directory / name);
    if (common == own) return;
  }
}

// The name of the reference that `name` points to, or "" when it holds a commit. Only HEAD must exist.
// Another one that is missing or damaged also gives "": commit_of() follows the chain again, and knows which
// of the two is an error.
std::string target_of(git_repository* repository, const std::string& name, const std::string& where) {
  git_reference* found = nullptr;
  const int result = git_reference_lookup(&found, repository, name.c_str());
  const GitHandle<git_reference> reference(found);
  if (result < 0 && name == "HEAD") throw git_error("cannot read HEAD of " + where);
  if (result < 0) return "";
  const bool is_symbolic = git_reference_type(reference.get()) == GIT_REFERENCE_SYMBOLIC;
  return is_symbolic ? git_reference_symbolic_target(reference.get()) : "";
}

// libgit2 follows ten references and calls a longer chain or a loop an error, which commit_of() reports. This
// limit only ends the walk here, so that the call is reached.
constexpr int kMostSteps = 16;

Checkout read_telling(const std::filesystem::path& root, const Reads& reads) {
  Checkout checkout;
  checkout.root = root;
  checkout.name = utils::valid_utf8(root.filename().string());
  std::error_code error;
  // Only a `.git` that is a file, or missing, gets a stamp. As a directory it has a new modification time
  // after each lock file that git makes in it, and the cache would be dropped for nothing.
  if (!std::filesystem::is_directory(root / ".git", error)) reads(root / ".git");
  const auto repository = open_repository(root);
  if (repository == nullptr) return checkout;
  checkout.in_git = true;
  const std::filesystem::path common = git_repository_commondir(repository.get());
  for (const char* name : {"config", "packed-refs"}) reads(common / name);
  checkout.origin = origin_of(repository.get());
  if (std::string name = name_in_address(checkout.origin); !name.empty()) checkout.name = std::move(name);
  const std::string where = "the git repository at " + root.string();
  checkout.branch = "HEAD";
  std::string reference = "HEAD";
  for (int step = 0; step < kMostSteps && !reference.empty(); ++step) {
    tell_reference(reads, repository.get(), reference);
    reference = target_of(repository.get(), reference, where);
    if (step == 0 && !reference.empty()) checkout.branch = branch_name(reference);
  }
  checkout.commit = commit_of(repository.get(), "HEAD", where);
  return checkout;
}

}  // namespace

Checkout read_checkout(const std::filesystem::path& root) {
  return read_telling(root, [](const auto&) {});
}

Checkout CheckoutReader::read() {
  // Nanoseconds: the coarsest time stamps of a file system in use (FAT). A file that is younger than this can
  // be written again and keep its stamp.
  constexpr std::int64_t kTick = 2'000'000'000;
  const std::lock_guard lock(mutex_);
  const auto is_same = [](const auto& each) { return utils::stamp_of(each.first) == each.second; };
  if (last_ && std::all_of(stamps_.begin(), stamps_.end(), is_same)) return *last_;
  // Taken before the reading, so that a file written meanwhile counts as young.
  const std::int64_t now =
      std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
  last_.reset();  // first: when the reading fails, the old checkout must not be given again
  stamps_.clear();
  // A path that is named twice keeps its first stamp, the one from before its first reading.
  Checkout checkout =
      read_telling(root_, [this](const auto& path) { stamps_.try_emplace(path, utils::stamp_of(path)); });
  const auto is_settled = [&](const auto& each) { return each.second.modified <= now - kTick; };
  if (std::all_of(stamps_.begin(), stamps_.end(), is_settled)) last_ = checkout;
  return checkout;
}

std::optional<std::filesystem::path> find_root(const std::filesystem::path& folder) {
  std::error_code error;
  std::filesystem::path at = std::filesystem::canonical(folder, error);
  if (error) return std::nullopt;
  for (;; at = at.parent_path()) {
    for (const char* mark : {".git", ".ossilar", "ossilar.toml"}) {
      // A dangling link counts too: skipping it would choose a root further up without a word.
      if (std::filesystem::exists(std::filesystem::symlink_status(at / mark, error))) return at;
    }
    if (at == at.root_path()) return std::nullopt;
  }
}

}  // namespace ossilar::source
