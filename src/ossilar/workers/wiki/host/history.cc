// A version is the whole page file and not the authored text alone. Its record says what the text cited and
// against which sources it was written, which restoring it needs: a save would otherwise vouch for today's
// lines in the name of an old text. And the newest version is then the page file itself.
#include "ossilar/workers/wiki/host/history.h"

#include <utility>
#include <vector>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/pages/page_version.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

using store::PageVersion;

void note(Wiki& wiki, store::WikiStore& store, const std::string& page_id, PageVersion version,
          const std::string& before) {
  version.at = _now_iso();
  version.commit = wiki.commit();
  std::vector<PageVersion> versions;
  if (!before.empty() && !utils::first_invalid_utf8(before)) {  // the store keeps UTF-8 alone
    versions.push_back({.version = version_of(before),
                        .at = version.at,
                        .commit = version.commit,
                        .action = action::kFound,
                        .text = before});
  }
  versions.push_back(std::move(version));
  store.keep_versions(wiki.branch(), page_id, versions, wiki.config().history_versions);
}

}  // namespace

void note_version(Wiki& wiki, store::WikiStore& store, const std::string& page_id, const PageChange& change,
                  const std::string& text, const std::string& before) {
  note(wiki, store, page_id,
       {.version = version_of(text), .client = change.client, .action = change.action, .text = text}, before);
}

void note_removal(Wiki& wiki, store::WikiStore& store, const std::string& page_id, const std::string& client,
                  const std::string& before) {
  note(wiki, store, page_id,
       {.version = std::string(kNoVersion), .client = client, .action = action::kRemoved}, before);
}

}  // namespace ossilar::workers::wiki
