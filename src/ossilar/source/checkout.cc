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
  checkout.branch = on_branch ? branch_name(git_reference_symbolic_target(head.get())) : "HEAD";
  checkout.commit = commit_of(repository.get(), "HEAD", where);
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
