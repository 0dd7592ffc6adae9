// libgit2 reads far more as a revision, such as dates and searches, and for those it would open files and
// objects that nobody has looked at. So a name is one that git looks up in known places, which are looked at
// first, and the steps behind it are gone here, one object at a time.
#include "ossilar/source/git/revisions.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "ossilar/source/git/git_files.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostDigits = 9;  // of a step; no history is longer

bool is_name_byte(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
         std::string_view("._-/+@").find(c) != std::string_view::npos;
}

bool is_step_byte(char c) { return c == '~' || c == '^' || std::isdigit(static_cast<unsigned char>(c)) != 0; }

bool is_plain(const std::string& revision, std::size_t name_end) {
  const auto end = revision.begin() + static_cast<std::ptrdiff_t>(name_end);
  return name_end > 0 && revision.front() != '-' && revision.front() != '/' &&
         revision.find("..") == std::string::npos && std::all_of(revision.begin(), end, is_name_byte) &&
         std::all_of(end, revision.end(), is_step_byte);
}

// Looks up one revision.
class Lookup {
 public:
  Lookup(const GitObjects& objects, const std::string& revision)
      : objects_(objects),
        revision_(revision),
        name_(revision.substr(0, revision.find_first_of("~^"))),
        fault_("no commit '" + utils::printable_line(revision) + "'") {}

  std::string commit() {
    if (!objects_.hindrance().empty()) throw utils::ConfigError(fault_ + ": " + objects_.hindrance());
    if (!is_plain(revision_, name_.size())) {
      throw utils::ConfigError(fault_ +
                               ": name a branch, a tag, HEAD or a commit's id, with ~N or ^N behind it");
    }
    look_at_references();
    look_at_objects();
    git_object* found = nullptr;
    if (git_revparse_single(&found, objects_.repository(), name_.c_str()) != 0) refuse();
    object_.reset(found);
    while (git_object_type(object_.get()) == GIT_OBJECT_TAG)
      go_to(git_tag_target_id(reinterpret_cast<const git_tag*>(object_.get())));
    if (git_object_type(object_.get()) != GIT_OBJECT_COMMIT) refuse();
    go_steps();
    return hex_of(git_object_id(object_.get()));
  }

 private:
  [[noreturn]] void refuse() const { throw utils::ConfigError(fault_ + " in this repository"); }

  // The files in which git looks for a name, in its order.
  void look_at_references() const {
    const fs::path directory = git_repository_path(objects_.repository());
    const fs::path common = git_repository_commondir(objects_.repository());
    for (const char* folder : {"", "refs", "refs/tags", "refs/heads", "refs/remotes"}) {
      look_at_reference(directory / folder / name_);
      look_at_reference(common / folder / name_);
    }
  }

  // The object that the name means as a reference, and those whose id begins with it: libgit2 opens them all.
  void look_at_objects() const {
    git_reference* found = nullptr;
    if (git_reference_dwim(&found, objects_.repository(), name_.c_str()) == 0) {
      const GitHandle<git_reference> reference(found);
      if (const git_oid* id = git_reference_target(reference.get())) objects_.look_at(hex_of(id));
    }
    if (name_.size() < 4 || name_.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return;
    std::string digits = name_;
    std::transform(digits.begin(), digits.end(), digits.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const fs::path folder =
        fs::path(git_repository_commondir(objects_.repository())) / "objects" / digits.substr(0, 2);
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error))
      if (entry.path().filename().string().starts_with(digits.substr(2))) look_at_object(entry.path());
  }

  void go_to(const git_oid* id) {
    if (id == nullptr) refuse();
    objects_.look_at(hex_of(id));
    git_object* next = nullptr;
    if (git_object_lookup(&next, objects_.repository(), id, GIT_OBJECT_ANY) != 0) refuse();
    object_.reset(next);
  }

  void go_to_parent(unsigned number) {
    go_to(git_commit_parent_id(reinterpret_cast<const git_commit*>(object_.get()), number));
  }

  // "~2^" and the like: ~N goes to the first parent N times, ^N once to the N-th.
  void go_steps() {
    for (std::size_t at = name_.size(); at < revision_.size();) {
      const bool is_line = revision_[at++] == '~';
      const std::size_t end = std::min(revision_.find_first_of("~^", at), revision_.size());
      const std::string digits = revision_.substr(at, end - at);
      if (digits.size() > kMostDigits) refuse();
      const unsigned count = digits.empty() ? 1 : static_cast<unsigned>(std::stoul(digits));
      if (!is_line && count > 0) go_to_parent(count - 1);
      for (unsigned i = 0; is_line && i < count; ++i) go_to_parent(0);
      at = end;
    }
  }

  const GitObjects& objects_;
  const std::string& revision_;
  const std::string name_;
  const std::string fault_;
  GitHandle<git_object> object_;
};

}  // namespace

std::string commit_named(const GitObjects& objects, const std::string& revision) {
  return Lookup(objects, revision).commit();
}

}  // namespace ossilar::source
