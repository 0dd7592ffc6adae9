// The working tree is compared as git does it: a file whose size and time are those that git noted is as it
// was staged, and only the others are read.
#include "ossilar/source/change.h"

#include <utility>

#include "ossilar/source/file_reader.h"
#include "ossilar/source/git/git_index.h"
#include "ossilar/source/git/revisions.h"
#include "ossilar/source/indexer.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

CommitFiles files_of(const GitObjects& objects, const std::string& commit) {
  auto files = objects.files(commit);
  if (!files) throw utils::Error("the commit " + commit + " is not in this clone; fetch it");
  return *std::move(files);
}

CommitFiles blobs_of(const std::map<std::string, StagedFile>& staged) {
  CommitFiles files;
  for (const auto& [path, file] : staged) files.emplace(path, file.blob);
  return files;
}

bool is_as_staged(const Stamp& stamp, const StagedFile& staged) {
  return staged.is_settled && stamp.size == staged.size && stamp.modified == staged.modified;
}

CommitFiles working_files(const std::filesystem::path& root) {
  CommitFiles files;
  Tree tree(root);
  for (const auto& [path, staged] : staged_files(root)) {
    const auto look = tree.look(path);
    if (!look || look->is_directory) continue;
    const bool is_read = look->kind == FileKind::text && !is_as_staged(look->stamp, staged);
    const auto reading = is_read ? tree.read(path) : std::nullopt;
    if (is_read && !reading) continue;  // it has just gone
    files.emplace(path, reading ? blob_id(reading->content) : staged.blob);
  }
  return files;
}

}  // namespace

Change::Change(std::filesystem::path root, const Comparison& compared)
    : root_(std::move(root)), objects_(root_), is_working_(compared.to == Side::working) {
  const std::string from = commit_named(objects_, compared.from);
  if (compared.to == Side::commit) {
    files_ = tree_changes(objects_, from, commit_named(objects_, compared.commit));
  } else if (compared.to == Side::staged) {
    files_ = file_changes(files_of(objects_, from), blobs_of(staged_files(root_)));
  } else {
    files_ = file_changes(files_of(objects_, from), working_files(root_));
  }
}

std::optional<std::string> Change::text_of(const std::string& blob) const {
  if (blob.empty()) return std::nullopt;
  const auto content = objects_.blob(blob);
  const bool is_text = content && content->size() <= kLargestFile && content->find('\0') == std::string::npos;
  return is_text ? std::optional(utils::valid_utf8(*content)) : std::nullopt;
}

std::optional<std::string> Change::after(const TreeChange& file) const {
  if (file.after.empty()) return std::nullopt;
  return is_working_ ? read_source(root_, file.path) : text_of(file.after);
}

}  // namespace ossilar::source
