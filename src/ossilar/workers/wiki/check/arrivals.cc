// Manifests decide what came, not page files alone. A file that differs from its row without a manifest that
// describes it may be a manual edit or a save at work, and taking it over silently would pass it off as
// saved. `ossilar check` names those.
//
// git writes the files of a checkout one after the other, so a manifest may be there before its pages. Pages
// that are still to come are awaited: their stamps are noted, and the next call looks again when one changes.
#include "ossilar/workers/wiki/check/arrivals.h"

#include <utility>

#include "ossilar/utils/files.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/check/adoption.h"
#include "ossilar/workers/wiki/check/batches.h"
#include "ossilar/workers/wiki/check/older_format.h"
#include "ossilar/workers/wiki/pages/page_files.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

const utils::Logger arrivals_logger("ossilar.workers.wiki.arrivals");

// What manifests tell of pages beyond their rows.
struct Arrivals {
  std::vector<std::string> whole;  // whose file is what a manifest describes
  std::vector<std::string> gone;   // whose file is gone and that no manifest lists any more
  WikiLists::PageStamps awaited;   // whose file is not yet what a manifest describes

  bool has_any() const { return !whole.empty() || !gone.empty(); }
};

// A page whose row is all that its manifests describe costs no look at its file: that is every page, most of
// the time. The stamp is taken before the file is read, so a file that changes in between is looked at again.
Arrivals arrivals_of(const ManifestContent& manifest, const store::StoredRows& rows, const WikiPaths& paths) {
  Arrivals arrivals;
  for (const auto& [page_id, hashes] : manifest.described) {
    const Map* row = rows.find(page_id);
    const std::string known = row != nullptr ? utils::string_member(*row, "content_hash") : "";
    if (hashes.size() == 1 && hashes.count(known) > 0) continue;
    const fs::path file = paths.page(page_id);
    const utils::FileStamp stamp = utils::stamp_of(file);
    std::string hash;
    try {
      if (utils::is_regular_file(file)) hash = _text_hash(page_text(paths, page_id));
    } catch (const utils::Error& error) {  // awaited below, as it may be half written
      arrivals_logger.warning("cannot adopt a page", error);
    }
    if (hash != known && hashes.count(hash) > 0) {
      arrivals.whole.push_back(page_id);
    } else if (hashes.count(known) == 0) {
      arrivals.awaited.emplace(file, stamp);
    }
  }
  return arrivals;
}

// Pages that somebody else removed. Their manifest no longer lists them, whereas a file that was removed by
// hand is still listed, and is left to `ossilar check`. All manifests are read, not only those that changed:
// each lists a part of the pages.
std::vector<std::string> pages_removed(Wiki& wiki, const store::StoredRows& rows) {
  std::vector<std::string> missing;
  rows.for_each([&](const std::string& page_id, const Map&) {
    // Only "there is none" counts: in a folder that cannot be looked into, nobody knows.
    if (!utils::is_there(wiki.paths().page(page_id))) missing.push_back(page_id);
  });
  if (missing.empty()) return missing;
  const ManifestContent listed = wiki.lists().read_all();
  if (listed.described.empty()) return {};  // the manifest itself is gone, which says nothing of pages
  std::erase_if(missing, [&](const std::string& page_id) { return listed.described.count(page_id) > 0; });
  return missing;
}

// Of a wiki that machines share, version control brings only pages that nobody has stored or removed yet: of
// all others the store knows better.
void keep_new_pages(SharedFiles& files, const store::StoredRows& rows, std::vector<std::string>& pages) {
  std::erase_if(pages, [&](const std::string& page_id) {
    return rows.find(page_id) != nullptr || !files.may_adopt(page_id);
  });
}

Arrivals look_for_arrivals(Wiki& wiki, const ManifestContent& manifest) {
  const store::StoredRows rows = wiki.stored_pages();
  Arrivals arrivals = arrivals_of(manifest, rows, wiki.paths());
  if (wiki.shared_files() == nullptr) {
    arrivals.gone = pages_removed(wiki, rows);
  } else {
    keep_new_pages(*wiki.shared_files(), rows, arrivals.whole);
  }
  return arrivals;
}

bool has_lists(const WikiPaths& paths) {
  return utils::is_regular_file(paths.wiki / list_file("", kIndexEnd)) &&
         utils::is_regular_file(paths.wiki / list_file("", kManifestEnd));
}

// A page that fails is reported and the others go on; a store that fails would fail for all of them. Digests
// come after the last batch, see Adoption::store_digests().
void adopt_all(Wiki& wiki, Adoption& adoption, const std::vector<std::string>& pages,
               AdoptionReport& report) {
  Batches batches(wiki.store());
  for (const std::string& page_id : pages) {
    batches.add([&](store::WikiStore& store) {
      try {
        const std::string text = page_text(wiki.paths(), page_id);
        adoption.adopt_text(store, page_id, text);
        ++report.adopted;
        const bool is_listed = adoption.manifest().described.count(page_id) > 0;
        if (!is_listed) report.undescribed.push_back(page_id);
        if (is_listed && !adoption.is_described(page_id, text)) report.edited.push_back(page_id);
      } catch (const store::StorageError&) {
        throw;
      } catch (const utils::Error& error) {
        report.failed.emplace_back(error.what());
      }
    });
  }
  batches.end();
  adoption.store_digests(wiki.store());
}

// Records first, then the lists: giving records changes content hashes that the lists hold. Lists that cannot
// have changed are not rendered.
void finish_adoption(Wiki& wiki, const ManifestContent& manifest, AdoptionReport& report) {
  const bool is_older = !manifest.former_entries.empty();
  if (is_older) report.given_records = give_records(wiki);
  if (report.adopted > 0 || report.forgotten > 0 || is_older || !has_lists(wiki.paths()))
    wiki.note_lists(wiki.lists().write_all(wiki.stored_pages(), wiki.lists().lint()));
}

}  // namespace

AdoptionReport adopt_pages(Wiki& wiki) {
  AdoptionReport report;
  const auto planned = wiki.planned();  // before the lock: it may have to be prepared
  wiki.with_write_lock(true, [&] {
    const ManifestContent manifest = wiki.lists().read_all();
    const store::StoredRows rows = wiki.stored_pages();
    std::vector<std::string> pages;
    for (const fs::path& file : page_files(wiki.paths().pages)) {
      const std::string page_id = page_id_of(wiki.paths().pages, file);
      if (rows.find(page_id) != nullptr) continue;
      if (wiki.shared_files() != nullptr && !wiki.shared_files()->may_adopt(page_id)) continue;
      const bool is_listed = manifest.described.count(page_id) > 0;
      if (planned->plans.find(page_id) != nullptr || is_listed) {
        pages.push_back(page_id);
      } else {
        report.unplanned.push_back(utils::valid_utf8(file.string()));
      }
    }
    Adoption adoption(wiki, manifest, pages);
    if (!pages.empty()) adopt_all(wiki, adoption, pages, report);
    finish_adoption(wiki, manifest, report);
  });
  return report;
}

AdoptionReport adopt_arrivals(Wiki& wiki, WhenBusy when_busy) {
  // Only where it may bring something, as it reads every row, and a wiki at rest needs none of them here.
  if (wiki.shared_files() != nullptr) wiki.bring_in_files();
  const WikiLists::Stamps news = wiki.lists().news();
  if (news.empty()) return {};
  AdoptionReport report;
  Arrivals arrivals;
  try {
    const WikiLists::Own own = wiki.store().own_lists(wiki.branch());
    // All lists are there, as we wrote them from our rows: no page came, and none was taken off them. So a
    // command that starts over a wiki at rest reads no row for this.
    if (wiki.lists().are_own(news, own)) {
      wiki.lists().note(news, {});
      return report;
    }
    const ManifestContent manifest = wiki.lists().read(news, own);
    arrivals = look_for_arrivals(wiki, manifest);
    // Before the lists are written below: they keep the lines of awaited pages, to which these lines are the
    // only proof.
    wiki.lists().note({}, arrivals.awaited);
    if (arrivals.has_any() || !manifest.former_entries.empty()) {
      wiki.prepare();  // before the lock, as a scan may take long and saves would wait for it
      wiki.with_write_lock(when_busy == WhenBusy::wait, [&] {
        // Again: another process may have taken them over while this one waited for the lock.
        const Arrivals still = look_for_arrivals(wiki, manifest);
        Adoption adoption(wiki, manifest, still.whole);
        for (const std::string& page_id : still.gone) adoption.forget_page(page_id);
        report.forgotten = still.gone.size();
        // Also when pages are only gone: their digests go with store_digests().
        if (still.has_any()) adopt_all(wiki, adoption, still.whole, report);
        finish_adoption(wiki, manifest, report);
      });
    }
  } catch (const store::StorageError&) {
    throw;
  } catch (const _WikiBusy&) {  // the manifests are not noted, so that the next call looks again
    if (when_busy == WhenBusy::wait) throw;
    return {};
  } catch (const utils::Error& error) {  // noted below, or every call would fail and log it again
    arrivals_logger.warning("cannot adopt the pages of the manifest", error);
  }
  wiki.lists().note(news, arrivals.awaited);
  return report;
}

}  // namespace ossilar::workers::wiki
