// The wiki's generated lists on disk: `index.md` for readers and `manifest.json` for programs, and of a large
// wiki their parts in `lists/`. A save rewrites the two files that its page is listed in, under the write
// lock; only a page that divides a part makes it look at the others.
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

// A page of an index: its pages nested below those that they are part of.
std::string render_index(const ListPart& part, const store::StoredRows& rows);

// A list as it should read.
struct ListFile {
  std::string name;  // relative to the wiki's root
  std::string text;
};

// Thread-safety: every member may be called from any thread; write_page() and write_all() only by the holder
// of the write lock.
class WikiLists {
 public:
  WikiLists(std::filesystem::path wiki, std::filesystem::path pages);

  // Manifests all of whose lines are of rows, by name, each with a hash of its text.
  using Own = std::map<std::string, std::string>;

  // Brings the lists that tell of the page in line with the rows. What a manifest in place says of another
  // page stays while that page's file is not what its row knows. Gives the manifests that are now our own.
  Own write_page(const store::StoredRows& rows, const Map& lint, const std::string& page_id);

  // The same for all lists. Those of parts that are no more are removed.
  Own write_all(const store::StoredRows& rows, const Map& lint);

  // All lists as write_all() would write them.
  std::vector<ListFile> expected(const store::StoredRows& rows, const Map& lint) const;
  // The files in `lists/` that belong to no part, relative to the wiki's root.
  std::vector<std::string> strays(const store::StoredRows& rows) const;

  // What all manifests say; empty where there are none.
  ManifestContent read_all() const;

  // The lint summary that the manifest passes on; null when there is none.
  Map lint() const;

  // The manifests that somebody else wrote since they were last noted, by name, as they are now; all of them
  // when one of the page files that were awaited then has changed.
  using Stamps = std::map<std::string, utils::FileStamp>;
  Stamps news() const;
  // What those of the manifests say that are not our `own`, word for word.
  ManifestContent read(const Stamps& manifests, const Own& own) const;
  // These manifests were seen, and `awaited` are the page files that are not yet what they describe: of a
  // checkout that is still at work, perhaps.
  using PageStamps = std::map<std::filesystem::path, utils::FileStamp>;
  void note(const Stamps& manifests, const PageStamps& awaited);

 private:
  struct Manifest {
    std::string text;          // as it should be
    std::string in_place;      // as it is
    bool has_waiting = false;  // lines that are not of rows
  };
  // Which lines of a manifest in place wait for their pages.
  struct Waiting {
    bool awaited = false;  // those of pages that are still to come, too
    std::string but = {};  // never this page's: it was just saved
  };
  Manifest manifest_of(const ListPart& part, const store::StoredRows& rows, const Map& lint,
                       const Waiting& waiting) const;
  bool is_awaited(const std::string& page_id) const;
  bool is_unsettled(const std::string& page_id, const Map* row) const;
  void write_part(const ListPart& part, const store::StoredRows& rows, const Map& lint,
                  const std::string& saved, Own& own);
  // What is in the file, line ends normalised; "" where there is none.
  std::string read(const std::string& name) const;
  std::vector<std::string> files_in_lists() const;
  std::vector<std::string> manifests() const;
  void note_own(const std::string& name, const utils::FileStamp& stamp);

  const std::filesystem::path wiki_;
  const std::filesystem::path pages_;
  mutable std::mutex mutex_;
  Stamps noted_;        // guarded by mutex_, as is the next
  PageStamps awaited_;  // page files
};

}  // namespace ossilar::workers::wiki
