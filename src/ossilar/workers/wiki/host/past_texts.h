// Texts of source files as they were: what the store keeps of cited files, and git's objects behind it.
//
// Thread-safety: one thread at a time; each request and each save has one of its own. Failures: a git
// repository that cannot be read is logged and gives no texts, so that a wiki can still be asked; what the
// store throws passes.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "ossilar/source/git/git_objects.h"
#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/citing/fingerprint.h"

namespace ossilar::workers::wiki {

class PastTexts {
 public:
  // The store must outlive this.
  PastTexts(store::WikiStore& store, std::filesystem::path root) : store_(store), root_(std::move(root)) {}

  // The text of that very version; none when nobody has kept it.
  std::optional<std::string> text(const FileVersion& version);
  // The files of a commit, null when it is not here. Valid as long as this.
  const source::CommitFiles* files_at(const std::string& commit);

 private:
  source::GitObjects* objects();

  store::WikiStore& store_;
  const std::filesystem::path root_;
  bool is_opened_ = false;
  std::unique_ptr<source::GitObjects> objects_;  // opened when first needed
  std::map<std::string, std::optional<source::CommitFiles>> files_;
};

}  // namespace ossilar::workers::wiki
