#include "ossilar/source/checkout.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "ossilar/source/git.h"
#include "ossilar/source/git_files.h"
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

// Gets the path of each file that a checkout is read from, before it is read.
using Reads = std::function<void(const std::filesystem::path&)>;

// A repository keeps some references of a linked working tree with that and the others in one place for all.
void tell_reference(const Reads& reads, git_repository* repository, const std::string& name) {
  const std::filesystem::path own = git_repository_path(repository);
  const std::filesystem::path common = git_repository_commondir(repository);
  for (const auto& directory : {own, common}) {
    reads(directory / name);
    look_at_reference(directory / name);
    if (common == own) return;
  }
}

// The name that the reference `name` leads to, or "" when it is a commit's. Only HEAD has to be there; what
// is wrong with another is commit_of()'s to say.
std::string target_of(git_repository* repository, const std::string& name, const std::string& where) {
  git_reference* found = nullptr;
  const int result = git_reference_lookup(&found, repository, name.c_str());
  const GitHandle<git_reference> reference(found);
  if (result < 0 && name == "HEAD") throw git_error("cannot read HEAD of " + where);
  if (result < 0) return "";
  const bool is_symbolic = git_reference_type(reference.get()) == GIT_REFERENCE_SYMBOLIC;
  return is_symbolic ? git_reference_symbolic_target(reference.get()) : "";
}

// More than libgit2 follows, which is ten.
constexpr int kMostSteps = 16;

Checkout read_telling(const std::filesystem::path& root, const Reads& reads) {
  Checkout checkout;
  checkout.root = root;
  checkout.name = utils::valid_utf8(root.filename().string());
  std::error_code error;
  // A folder's own stamp tells of every lock that git takes in it.
  if (!std::filesystem::is_directory(root / ".git", error)) reads(root / ".git");
  const auto repository = open_repository(root);
  if (repository == nullptr) return checkout;
  checkout.in_git = true;
  const std::filesystem::path common = git_repository_commondir(repository.get());
  for (const char* name : {"config", "packed-refs"}) reads(common / name);
  if (std::string name = cloned_name(repository.get()); !name.empty()) checkout.name = std::move(name);
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
  // A file that is younger than the coarsest clock's tick can change again and look the same.
  constexpr std::int64_t kTick = 2'000'000'000;
  const std::lock_guard lock(mutex_);
  const auto is_same = [](const auto& each) { return utils::stamp_of(each.first) == each.second; };
  if (last_ && std::all_of(stamps_.begin(), stamps_.end(), is_same)) return *last_;
  const std::int64_t now =
      std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
  last_.reset();
  stamps_.clear();
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
      if (std::filesystem::exists(std::filesystem::symlink_status(at / mark, error))) return at;
    }
    if (at == at.root_path()) return std::nullopt;
  }
}

}  // namespace ossilar::source
