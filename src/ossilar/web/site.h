// The wiki at one moment, as its pages show it: plan, rows, states, and who cites which source. Views
// (page_view.h and its neighbours) make HTML of it; live_site.h makes a new one when the wiki changed, the
// export makes one.
//
// Thread-safety: immutable once made; any thread may read it. Texts of pages and sources are read when a view
// needs them, so a page may be one save newer than its row; it is the old or the new one, whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "ossilar/web/diagram_layout.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::web {

// Citations of one source file by one page: the lines, each once, and the section of the first.
struct CitedLines {
  std::string page_id;
  std::vector<std::pair<workers::wiki::Citation, std::string>> places;
};

class Site {
 public:
  // Reads all that is needed. `planned` and `rows` are of the same moment. Throws what the store throws.
  Site(std::shared_ptr<workers::wiki::Wiki> wiki, std::shared_ptr<const workers::wiki::PlannedWiki> planned,
       store::StoredRows rows, std::map<std::string, std::string> marks,
       std::shared_ptr<DiagramLayouts> diagrams = nullptr);
  // The wiki as it is now; scans the sources.
  static std::shared_ptr<const Site> now(const std::shared_ptr<workers::wiki::Wiki>& wiki);

  workers::wiki::Wiki& wiki() const { return *wiki_; }
  const workers::wiki::PlannedWiki& planned() const { return *planned_; }
  const store::StoredRows& rows() const { return rows_; }
  const workers::wiki::TitleIndex& titles() const { return titles_; }
  // What the site was made from, to see whether it is still up to date.
  bool is_of(const std::shared_ptr<const workers::wiki::PlannedWiki>& planned, const store::StoredRows& rows,
             const std::map<std::string, std::string>& marks) const;

  const std::string& name() const { return name_; }  // of the repository
  const std::string& commit() const { return commit_; }
  const std::string& origin() const { return origin_; }  // the address it was cloned from, "" for none
  const std::optional<store::WikiStateFields>& last_write() const { return last_write_; }

  // What is laid out already; the next site goes on with it.
  DiagramLayouts& diagrams() const { return *diagrams_; }
  const std::shared_ptr<DiagramLayouts>& shared_diagrams() const { return diagrams_; }

  // All pages: those of the plan in its order, then those that the plan no longer has.
  const std::vector<workers::wiki::PageState>& pages() const { return pages_; }
  // Null for an unknown id.
  const workers::wiki::PageState* page(const std::string& page_id) const;
  // Indices into pages() of those below the page, and for "" of those at the top.
  const std::vector<std::size_t>& children(const std::string& page_id) const;
  // Whether there is text to read.
  static bool is_written(const workers::wiki::PageState& page) {
    return page.condition != workers::wiki::PageCondition::missing;
  }
  // The id of the page that a title names, now or formerly.
  std::optional<std::string> page_of_title(const std::string& title) const { return titles_.find(title); }

  // Former titles as they stand in addresses ("a-former-title"), each with the page it leads to.
  const std::map<std::string, std::string>& former_titles() const { return former_titles_; }

  // Ids that pages had before, each with the page it leads to. One that a page has now leads to that page.
  const std::map<std::string, std::string>& former_ids() const { return former_ids_; }

  // Cited sources by path, each with the pages that cite it in the order of pages().
  const std::map<std::string, std::vector<CitedLines>>& cited() const { return cited_; }

 private:
  void note_citations();
  void note_former_names();

  std::shared_ptr<workers::wiki::Wiki> wiki_;
  std::shared_ptr<const workers::wiki::PlannedWiki> planned_;
  store::StoredRows rows_;
  std::map<std::string, std::string> marks_;
  std::shared_ptr<DiagramLayouts> diagrams_;
  workers::wiki::TitleIndex titles_;
  std::string name_, commit_, origin_;
  std::optional<store::WikiStateFields> last_write_;
  std::vector<workers::wiki::PageState> pages_;
  std::unordered_map<std::string, std::size_t> by_id_;
  std::unordered_map<std::string, std::vector<std::size_t>> children_;
  std::map<std::string, std::vector<CitedLines>> cited_;
  std::map<std::string, std::string> former_titles_, former_ids_;
};

}  // namespace ossilar::web
