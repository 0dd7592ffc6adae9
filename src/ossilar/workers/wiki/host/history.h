// The history of pages: notes each change of a page file, with who asked for it. Versions are kept by the
// store, the last `[history] versions` of each page; asking/page_versions.h gives them back.
//
// Whatever writes a row notes the version in the row's transaction: saves (orchestrator.cc), adoptions,
// renamings, removals and migrations (check/).
//
// Thread-safety: any thread; the notes belong to the holder of the write lock.
#pragma once

#include <string>

#include "ossilar/store/repository.h"
#include "ossilar/workers/wiki/host/page_change.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

// Notes in `store`, the wiki's or a transaction of it, that `text` is the text of the page's file from now
// on. `before` is the one that it replaces: it is noted as found where the history does not end with it, as
// a hand's edit, or the text of a page that was saved before its history began. Throws store::StorageError.
void note_version(Wiki& wiki, store::WikiStore& store, const std::string& page_id, const PageChange& change,
                  const std::string& text, const std::string& before = {});
// The same for a page that has no file from now on.
void note_removal(Wiki& wiki, store::WikiStore& store, const std::string& page_id, const std::string& client,
                  const std::string& before);

}  // namespace ossilar::workers::wiki
