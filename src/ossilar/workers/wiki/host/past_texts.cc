// The store is asked first: it has the version that was cited even if it was never committed, or if its
// commit was rewritten since. git has it in a clone, where the store is empty. Either way the hash decides
// whether it is the version that was meant.
#include "ossilar/workers/wiki/host/past_texts.h"

#include <utility>

#include "ossilar/utils/error.h"
#include "ossilar/utils/logging.h"

namespace ossilar::workers::wiki {
namespace {

const utils::Logger past_logger("ossilar.workers.wiki.past_texts");

}  // namespace

source::GitObjects* PastTexts::objects() {
  if (!std::exchange(is_opened_, true)) {
    try {
      objects_ = std::make_unique<source::GitObjects>(root_);
    } catch (const utils::Error& error) {
      past_logger.warning("cannot read git's objects, so citations are followed without the old texts",
                          error);
    }
  }
  return objects_.get();
}

std::optional<std::string> PastTexts::text(const FileVersion& version) {
  if (version.hash.empty()) return std::nullopt;
  if (auto kept = store_.cited_text(version.hash)) return kept;
  if (version.blob.empty() || objects() == nullptr) return std::nullopt;
  try {
    auto found = objects()->blob(version.blob);
    if (found && short_hash(*found) == version.hash) return found;
  } catch (const utils::Error& error) {
    past_logger.warning("cannot read an earlier version of a cited file", error);
  }
  return std::nullopt;
}

const source::CommitFiles* PastTexts::files_at(const std::string& commit) {
  if (commit.empty()) return nullptr;
  auto [files, is_new] = files_.try_emplace(commit);
  if (is_new && objects() != nullptr) {
    try {
      files->second = objects()->files(commit);
    } catch (const utils::Error& error) {
      past_logger.warning("cannot read the files of an earlier commit", error);
    }
  }
  return files->second ? &*files->second : nullptr;
}

}  // namespace ossilar::workers::wiki
