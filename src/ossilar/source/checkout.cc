#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "ossilar/source/git.h"
#include "ossilar/source/indexer.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

std::string hex(const git_oid& id) {
  std::string text(GIT_OID_HEXSZ, '\0');
  git_oid_fmt(text.data(), &id);
  return text;
}

// "refs/heads/topic/x" is the branch "topic/x".
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
  while (drop("/") || drop("/.")) {
  }
  drop(".git");
  return address.substr(address.find_last_of("/:") + 1);
}

// "" for a repository that was cloned from nowhere.
std::string cloned_name(git_repository* repository) {
  git_config* opened = nullptr;
  if (git_repository_config_snapshot(&opened, repository) < 0) return "";
  const GitHandle<git_config> config(opened);
  const char* address = nullptr;
  const bool known = git_config_get_string(&address, config.get(), "remote.origin.url") == 0;
  return known ? utils::valid_utf8(name_in_address(address)) : "";
}

}  // namespace

Checkout read_checkout(const std::filesystem::path& root) {
  Checkout checkout;
  checkout.root = root;
  checkout.name = utils::valid_utf8(root.filename().string());
  const auto repository = open_repository(root);
  if (repository == nullptr) return checkout;
  checkout.in_git = true;
  if (std::string name = cloned_name(repository.get()); !name.empty()) checkout.name = std::move(name);
  const std::string where = "the git repository at " + root.string();
  git_reference* found = nullptr;
  const int result = git_reference_lookup(&found, repository.get(), "HEAD");
  const GitHandle<git_reference> head(found);
  if (result < 0) throw git_error("cannot read HEAD of " + where);
  const bool on_branch = git_reference_type(head.get()) == GIT_REFERENCE_SYMBOLIC;
  if (on_branch) checkout.reference = git_reference_symbolic_target(head.get());
  checkout.branch = on_branch ? branch_name(checkout.reference) : "HEAD";
  checkout.commit = commit_of(repository.get(), "HEAD", where);
  return checkout;
}

// Of everything that read_checkout() reads, in a linked working tree too. None when a reference leads on to
// another, whose changes would not be seen.
CheckoutReader::Stamps CheckoutReader::stamps_of(const Checkout& checkout) const {
  constexpr std::uint64_t kDirectReference = GIT_OID_HEXSZ + 1;
  Stamps stamps;
  const auto add = [&](const std::filesystem::path& path) { stamps[path] = utils::stamp_of(path); };
  std::error_code error;
  // A folder's own stamp tells of every lock that git takes in it.
  if (!std::filesystem::is_directory(root_ / ".git", error)) add(root_ / ".git");
  const auto repository = open_repository(root_);
  if (repository == nullptr) return stamps;
  const std::filesystem::path own = git_repository_path(repository.get());
  const std::filesystem::path common = git_repository_commondir(repository.get());
  for (const auto& path : {own / "HEAD", common / "config", common / "packed-refs"}) add(path);
  if (checkout.reference.empty()) return stamps;
  const std::filesystem::path reference = common / checkout.reference;
  add(reference);
  const utils::FileStamp& stamp = stamps[reference];
  return stamp == utils::FileStamp{} || stamp.size == kDirectReference ? stamps : Stamps{};
}

Checkout CheckoutReader::read() {
  // A file that is younger than the coarsest clock's tick can change again and look the same.
  constexpr std::int64_t kTick = 2'000'000'000;
  const std::lock_guard lock(mutex_);
  const auto is_same = [](const auto& each) { return utils::stamp_of(each.first) == each.second; };
  if (last_ && std::all_of(stamps_.begin(), stamps_.end(), is_same)) return *last_;
  const std::int64_t now =
      std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
  stamps_ = stamps_of(read_checkout(root_));
  Checkout checkout = read_checkout(root_);
  const auto is_settled = [&](const auto& each) { return each.second.modified <= now - kTick; };
  last_.reset();
  if (!stamps_.empty() && std::all_of(stamps_.begin(), stamps_.end(), is_settled)) last_ = checkout;
  return checkout;
}

std::optional<std::filesystem::path> find_root(const std::filesystem::path& folder) {
  std::error_code error;
  std::filesystem::path at = std::filesystem::canonical(folder, error);
  if (error) return std::nullopt;
  for (;; at = at.parent_path()) {
    for (const char* mark : {".git", ".ossilar", "ossilar.toml"}) {
      if (std::filesystem::exists(std::filesystem::symlink_status(at / mark, error))) return at;
    }
    if (at == at.root_path()) return std::nullopt;
  }
}

}  // namespace ossilar::source
