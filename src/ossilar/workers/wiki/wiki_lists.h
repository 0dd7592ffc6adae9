// Writing the wiki's generated lists, `index.md` and `manifest.json`.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/manifest.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// What the lists tell of.
struct ListContent {
  // The manifest as it was before the rows were read: where it is another one by now, that may tell of newer
  // rows.
  std::shared_ptr<const utils::HeldFile> over = {};
  store::StoredRows rows;
  Plans plans;
  WikiBuildResult result;
};

// Thread-safety: every member may be called from any thread.
class WikiLists {
 public:
  // With `beside` the disk takes both lists at a time, one by a thread of its own.
  WikiLists(std::filesystem::path wiki, std::filesystem::path pages, bool beside = false);

  // How the lists are to read; `waiting` are entries of pages without a row, by page id.
  std::string index(const ListContent& content);
  std::string manifest(const ListContent& content, const std::map<std::string, Map>& waiting);

  // The manifest that is in place, for ListContent::over.
  std::shared_ptr<const utils::HeldFile> manifest_in_place() const;

  // Both lists on disk beside their places.
  struct Staged {
    std::shared_ptr<const utils::HeldFile> over;  // see ListContent
    std::map<std::string, Map> waiting;
    std::string index_text;
    std::optional<utils::StagedFile> index;  // none when the one in place reads the same
    std::optional<utils::StagedFile> manifest;
  };
  // Stages the lists, which may tell of what `known` (the manifest in place, where it is not given) tells of
  // pages that have no row yet. A manifest that cannot be read, in the midst of a merge perhaps, is left to
  // whoever mends it: utils::Error.
  Staged stage(const ListContent& content, const ManifestContent* known = nullptr);

  // Whether the manifest in place still is the one that was there before their rows were read.
  bool is_current(const Staged& staged) const;
  // Puts the lists in their places; the caller holds the write lock.
  void place(Staged staged);

  // Whether the manifest with this stamp is one that was written here, with no entry that waits for its page:
  // nothing is to be learnt from it.
  bool is_own(const utils::FileStamp& manifest) const;

 private:
  std::map<std::string, Map> entries_waiting(const utils::FileStamp& manifest, const ListContent& content,
                                             const ManifestContent* known) const;

  const std::filesystem::path wiki_;
  const std::filesystem::path pages_;
  const bool beside_;
  mutable std::mutex rendering_;
  WikiFilesRenderer renderer_;  // guarded by rendering_
  mutable std::mutex mutex_;
  struct {
    utils::FileStamp manifest;
    std::optional<utils::StagedFile> placed;  // that manifest, held open for the sake of its stamp
    utils::FileStamp coming;                  // the manifest that is being put in place
    std::map<std::string, Map> waiting;
    utils::FileStamp index;
    std::string index_text;
  } last_;  // what was written last; guarded by mutex_
};

}  // namespace ossilar::workers::wiki
