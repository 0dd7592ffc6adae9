// The wiki's generated lists on disk: `index.md` for readers, `manifest.json` for programs, and for a large
// wiki their parts in `lists/`. A save rewrites the two files that list its page; it writes all of them only
// when its page changes how the lists are divided.
//
// Callers: the publication of a save (host/orchestrator.cc), adoption (check/arrivals.cc), and `ossilar
// check` (check/inspection.cc, check/repair.cc). A write that fails or is killed leaves each file whole, old
// or new; a list that fell behind is put right by the next save in its part or by `ossilar check --fix`.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/utils/files.h"
#include "ossilar/workers/wiki/pages/manifest.h"

namespace ossilar::workers::wiki {

// The Markdown of one index file. A page is indented below the pages that it is part of, as far as they are
// in the same list.
std::string render_index(const ListPart& part, const store::StoredRows& rows);

// A list as it should read.
struct ListFile {
  std::string name;  // relative to the wiki's root
  std::string text;
};

// One object per open wiki. It remembers which manifests it wrote or saw, so that a look at their stamps
// tells whether version control brought others. Errors: utils::Error when a list cannot be read or written.
//
// Thread-safety: every member may be called from any thread; write_page() and write_all() only by the holder
// of the write lock.
class WikiLists {
 public:
  // `wiki` is the wiki's root and `pages` the folder of the page files, both absolute.
  WikiLists(std::filesystem::path wiki, std::filesystem::path pages);

  // Manifests that were rendered from rows alone: file name to the SHA-256 of the text. The caller stores
  // them (Wiki::note_lists()), so that no process takes what they say for news of another clone.
  using Own = std::map<std::string, std::string>;

  // Brings the lists that mention the page in line with the rows. A line about another page that somebody
  // else wrote stays while that page's file differs from its row: the line is needed to adopt the page. Gives
  // the manifests that now hold rows alone.
  Own write_page(const store::StoredRows& rows, const Map& lint, const std::string& page_id);

  // The same for all lists. Files of parts that no longer exist are removed.
  Own write_all(const store::StoredRows& rows, const Map& lint);

  // All lists as they should read. Unlike write_all() it keeps no line of a page whose file has yet to
  // arrive.
  std::vector<ListFile> expected(const store::StoredRows& rows, const Map& lint) const;
  // The files in `lists/` that belong to no part, relative to the wiki's root.
  std::vector<std::string> strays(const store::StoredRows& rows) const;

  // What all manifests say together; empty if there are none.
  ManifestContent read_all() const;

  // The lint summary in `manifest.json`, which another program wrote there and saves pass on; null if none.
  Map lint() const;

  // The manifests that changed since they were last noted, by name, with their stamps now: others wrote them.
  // If an awaited page file has changed, all manifests count, as any of them may describe that page.
  using Stamps = std::map<std::string, utils::FileStamp>;
  Stamps news() const;
  // What these manifests say, except those whose text is the one noted in `own`.
  ManifestContent read(const Stamps& manifests, const Own& own) const;
  // Whether these manifests are those of `own`, all of them, each with the text that is noted there.
  bool are_own(const Stamps& manifests, const Own& own) const;
  // Notes that these manifests were dealt with. `awaited` replaces the page files that are not yet what their
  // manifest describes, with their stamps: a checkout may still be writing them.
  using PageStamps = std::map<std::filesystem::path, utils::FileStamp>;
  void note(const Stamps& manifests, const PageStamps& awaited);

 private:
  struct Manifest {
    std::string text;          // as it should be
    std::string in_place;      // as it is
    bool has_waiting = false;  // it keeps lines that do not come from rows
  };
  // Which foreign lines of the manifest in place are kept.
  struct Waiting {
    bool awaited = false;  // also those of pages whose files have yet to arrive
    std::string but = {};  // none for this page: it was just saved, so its row is right
  };
  Manifest manifest_of(const ListPart& part, const store::StoredRows& rows, const Map& lint,
                       const Waiting& waiting) const;
  bool is_awaited(const std::string& page_id) const;
  bool is_unsettled(const std::string& page_id, const Map* row) const;
  void write_part(const ListPart& part, const store::StoredRows& rows, const Map& lint,
                  const std::string& saved, Own& own);
  // The file's text with line ends normalised, as git may have converted them; "" if there is none.
  std::string read(const std::string& name) const;
  std::vector<std::string> files_in_lists() const;
  std::vector<std::string> manifests() const;
  void note_own(const std::string& name, const utils::FileStamp& stamp);

  const std::filesystem::path wiki_;
  const std::filesystem::path pages_;
  mutable std::mutex mutex_;
  Stamps noted_;        // as written or last dealt with; guarded by mutex_, as is the next
  PageStamps awaited_;  // page files, as they were when noted
};

}  // namespace ossilar::workers::wiki
