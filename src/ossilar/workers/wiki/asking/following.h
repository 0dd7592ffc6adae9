// What keeps a page true without a new text: following what moved (`ossilar sync`), and confirming words that
// still hold (`ossilar confirm`). Both go through the save pipeline, onto the version that they read, so they
// overwrite nobody's work. operations/sync.cc and operations/confirm_page.cc call them. With `[wiki] follow`
// sessions follow a page when they read or save it (operations/session_following.h).
//
// Thread-safety: every function may be called from any thread. Failures: as of a save (docs/design.md);
// utils::Cancelled passes.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::workers::wiki {

struct SyncedPage {
  std::string page_id;
  std::vector<Doubt> followed;  // moved citations whose lines were rewritten
  std::vector<Doubt> left;      // what needs the page's author
  std::string diff;             // of a dry run: a unified diff of the page file, without what is generated
  std::string refusal;          // why nothing was written although there was something to follow, else ""
};

// Rewrites the lines of moved citations in the authored text of the page `only`, or of all pages, and no
// other byte of it. It does not count as a look at the page: everything else stays as stale as it was. With
// `is_dry_run` nothing is written. Pages without moved citations are left alone and not in the result.
std::vector<SyncedPage> sync_pages(Wiki& wiki, const std::optional<std::string>& only, bool is_dry_run,
                                   const std::string& client, utils::Task& task);

// The text of a page, or of its section, with the lines of moved citations rewritten in the sentences that
// stand as they stood; `followed` gets each. What another has changed of it meanwhile, the save decides.
std::string followed_content(Wiki& wiki, const std::string& page_id, const std::string& content,
                             std::vector<Doubt>& followed);

// The page's author has looked: the words of the section `section`, or of the whole page, still hold for the
// source as it is. Takes its fingerprints anew and records time and commit; the text stays. Refused for a
// page that has another version than `if_version`, and for a citation that is gone: nobody can look at that.
Answer confirm_page(Wiki& wiki, const std::string& page_id, const std::optional<std::string>& section,
                    const std::optional<std::string>& if_version, const std::string& client,
                    utils::Task& task);

}  // namespace ossilar::workers::wiki
