// First every saved page is settled: which page of the derived plan it is, or that it is one of its own, or
// none. Only then is the plan changed, as settling compares with the plan as derived.
//
// One file that is still a source of the page with its id is enough for a page to stay. Ranges of names shift
// by a file or two with every commit, and a page that leaves its id for a better fit takes the id of another
// page along, which then needs a new one: two pages moved where one would be stale.
//
// Files that two pages would share by a merge go to the one that told of them at its save. Else both would be
// stale, though nothing that they say became wrong.
#include "ossilar/workers/wiki/plan/kept_ids.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "ossilar/workers/wiki/plan/moved_files.h"
#include "ossilar/workers/wiki/plan/plan_names.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);  // no page of the plan

using Saved = SavedPages::value_type;

// How much of a page: files that it rests on, then files in all, which decide between equals.
struct Share {
  std::size_t rests = 0;
  std::size_t files = 0;
  bool operator==(const Share&) const = default;
  bool operator<(const Share& other) const {
    return std::tie(rests, files) < std::tie(other.rests, other.files);
  }

  void add(bool counts) {
    rests += counts ? 1 : 0;
    ++files;
  }
  bool is_most_of(const Share& whole) const { return 2 * rests > whole.rests; }
};

bool has_file(const SavedPage& page, std::string_view path) {
  const auto file = std::lower_bound(page.files.begin(), page.files.end(), path,
                                     [](const SavedFile& f, std::string_view p) { return f.path < p; });
  return file != page.files.end() && file->path == path;
}

// A saved page that is looked for in the derived plan.
struct Homeless {
  const Saved* saved = nullptr;
  std::vector<std::string_view> places = {};  // of its files today
  std::size_t former = kNone;                 // the page of the plan that has its id
  std::size_t best = kNone;                   // the page of the plan to which most of it went
  Share in_best = {};
  Share whole = {};
  bool is_settled = false;

  // Whether this one is more at home in the page to which both went: by how many files, then by how much of
  // it that is. A page that was divided, and not saved since, still lists files of which others tell now, and
  // those went there as a whole.
  bool comes_before(const Homeless& other) const {
    const std::size_t mine = in_best.rests * other.whole.rests;
    const std::size_t others = other.in_best.rests * whole.rests;
    return in_best != other.in_best ? other.in_best < in_best : mine > others;
  }
};

// A saved page that stays in the plan though no page is derived for it.
struct OwnPage {
  const Saved* saved = nullptr;
  std::size_t beside = kNone;  // the page of the plan with most of its files
  std::vector<std::string> files;
};

// Settles the saved pages. What it refers to must stay unchanged as long as it is used.
class Settlement {
 public:
  Settlement(const std::vector<PagePlan>& pages, const SavedPages& saved, const source::SourceIndex& index,
             const StringSet& named)
      : pages_(pages),
        index_(index),
        named_(named),
        page_of_(pages.size(), nullptr),
        found_(pages.size(), nullptr) {
    for (std::size_t i = 0; i < pages.size(); ++i) {
      by_id_.emplace(pages[i].page_id, i);
      if (pages[i].type != "module") continue;
      for (const std::string& file : pages[i].source_files) owner_.emplace(file, i);
    }
    for (const Saved& page : saved) settle_by_id(page);
    if (homeless_.empty()) return;
    look_around();
    // Again for those that lost, as what the winners tell no longer counts for them.
    while (claim()) {
    }
    plan_own_pages();
  }

  // Of each page of the plan the saved page that it is, or null.
  const std::vector<const Saved*>& page_of() const { return page_of_; }
  const std::vector<OwnPage>& own_pages() const { return own_; }
  // Whether the page of the plan is a saved page that had `file` at its save, there or where it was then.
  bool tells(std::size_t page, std::string_view file) const {
    if (page_of_[page] == nullptr) return false;
    const Homeless* found = found_[page];
    return has_file(page_of_[page]->second, file) ||
           (found != nullptr && std::count(found->places.begin(), found->places.end(), file) > 0);
  }
  bool is_as_derived() const {
    for (std::size_t i = 0; i < pages_.size(); ++i) {
      if (page_of_[i] != nullptr && page_of_[i]->first != pages_[i].page_id) return false;
    }
    return own_.empty();
  }

 private:
  // Counts the files by whether the page rests on them; `belongs` says which.
  template <class Belongs>
  static Share share(const SavedPage& page, Belongs belongs) {
    const bool cites =
        std::any_of(page.files.begin(), page.files.end(), [](const SavedFile& f) { return f.is_cited; });
    Share of;
    for (std::size_t i = 0; i < page.files.size(); ++i) {
      if (belongs(i)) of.add(!cites || page.files[i].is_cited);
    }
    return of;
  }
  static Share whole(const SavedPage& page) {
    return share(page, [](std::size_t) { return true; });
  }

  std::size_t owner(std::string_view file) const {
    const auto found = owner_.find(file);
    return found == owner_.end() ? kNone : found->second;
  }

  // Nearly every page ends here, so nothing costly comes before.
  void settle_by_id(const Saved& saved) {
    const auto& [id, page] = saved;
    const auto found = by_id_.find(id);
    const std::size_t derived = found == by_id_.end() ? kNone : found->second;
    const auto is_of_derived = [&](const SavedFile& file) { return owner(file.path) == derived; };
    const bool is_module = page.type == "module";
    if (derived == kNone) {
      if (is_module) homeless_.push_back({.saved = &saved});
    } else if (!is_module || pages_[derived].type != "module" || named_.count(id) > 0 ||
               std::any_of(page.files.begin(), page.files.end(), is_of_derived)) {
      page_of_[derived] = &saved;
    } else {
      homeless_.push_back({.saved = &saved, .former = derived});
    }
  }

  bool is_told(std::string_view file) const {
    const std::size_t page = owner(file);
    return page != kNone && tells(page, file);
  }

  void look_around() {
    std::vector<const SavedPage*> pages;
    pages.reserve(homeless_.size());
    for (const Homeless& page : homeless_) pages.push_back(&page.saved->second);
    const MovedFiles moved(pages, index_);
    for (Homeless& page : homeless_) {
      page.places = moved.places(page.saved->second);
      page.whole = whole(page.saved->second);
      if (page.former != kNone && is_among(page, page.former)) settle(page, page.former);
    }
  }

  bool is_among(const Homeless& page, std::size_t derived) const {
    return std::any_of(page.places.begin(), page.places.end(),
                       [&](std::string_view place) { return !place.empty() && owner(place) == derived; });
  }

  // What another page tells of already says nothing of where this one went: most often it was told apart from
  // this page when a range was divided.
  void find_best(Homeless& page) const {
    page.best = kNone;
    page.in_best = {};
    const SavedPage& saved = page.saved->second;
    const Share there = share(saved, [&](std::size_t i) { return !page.places[i].empty(); });
    if (!there.is_most_of(page.whole)) return;
    std::vector<std::size_t> owners;  // of each of the files that count
    owners.reserve(page.places.size());
    for (const std::string_view place : page.places)
      owners.push_back(place.empty() || is_told(place) ? kNone : owner(place));
    // In the order of the plan, so that of equals the first by the plan is found; a free one before that.
    const auto rank = [&](std::size_t derived, const Share& in) {
      return std::make_pair(in, derived != kNone && page_of_[derived] == nullptr);
    };
    for (const std::size_t at : std::set<std::size_t>(owners.begin(), owners.end())) {
      if (at == kNone) continue;
      const Share in = share(saved, [&](std::size_t i) { return owners[i] == at; });
      if (rank(page.best, page.in_best) < rank(at, in)) {
        page.best = at;
        page.in_best = in;
      }
    }
  }

  void settle(Homeless& page, std::size_t derived) {
    page_of_[derived] = page.saved;
    found_[derived] = &page;
    page.is_settled = true;
  }

  // Gives each free page to the one with most in it; of equals to the first by its id. A page whose saved
  // page is looked for itself is free, so that two folders may change their names with each other. False if
  // no page was given.
  bool claim() {
    std::vector<Homeless*> claims;
    for (Homeless& page : homeless_) {
      if (page.is_settled) continue;
      find_best(page);
      const bool can = page.best != kNone && page_of_[page.best] == nullptr;
      if (can && named_.count(pages_[page.best].page_id) == 0) claims.push_back(&page);
    }
    std::stable_sort(claims.begin(), claims.end(),
                     [](const Homeless* a, const Homeless* b) { return a->comes_before(*b); });
    for (Homeless* page : claims) {
      if (page_of_[page->best] == nullptr) settle(*page, page->best);
    }
    return !claims.empty();
  }

  // A page of its own takes its files out of others, or shares them; one whose id is derived for something
  // else may only take, or stays there.
  void plan_own_pages() {
    std::set<std::string_view> taken;  // by such pages, when they were found elsewhere
    for (Homeless& page : homeless_) {
      if (page.is_settled) continue;
      const SavedPage& saved = page.saved->second;
      const bool shares = page.former == kNone;
      const auto is_own = [&](std::size_t i) {
        const std::string_view place = page.places[i];
        if (place.empty()) return false;
        return (shares && place == saved.files[i].path) || (!is_told(place) && taken.count(place) == 0);
      };
      if (!share(saved, is_own).is_most_of(page.whole)) {
        if (page.former != kNone && page_of_[page.former] == nullptr) settle(page, page.former);
        continue;
      }
      OwnPage own{.saved = page.saved, .beside = page.best, .files = {}};
      for (std::size_t i = 0; i < saved.files.size(); ++i) {
        if (is_own(i)) own.files.emplace_back(page.places[i]);
      }
      if (own.beside == kNone) own.beside = first_owner(own.files);
      for (const std::string& file : own.files) taken.insert(index_.find(file)->path);
      std::sort(own.files.begin(), own.files.end());
      own_.push_back(std::move(own));
    }
  }

  std::size_t first_owner(const std::vector<std::string>& files) const {
    const auto owned =
        std::find_if(files.begin(), files.end(), [&](const std::string& f) { return owner(f) != kNone; });
    return owned == files.end() ? kNone : owner(*owned);
  }

  const std::vector<PagePlan>& pages_;
  const source::SourceIndex& index_;
  const StringSet& named_;
  std::unordered_map<std::string_view, std::size_t> by_id_;
  std::unordered_map<std::string_view, std::size_t> owner_;  // file to the module that has it
  std::vector<const Saved*> page_of_;
  std::vector<const Homeless*> found_;  // of each page of the plan the one that was looked for, or null
  std::vector<Homeless> homeless_;      // in the order of their ids
  std::vector<OwnPage> own_;
};

// Gives the pages the ids of the saved pages that they are, wherever they are named. A page whose id has gone
// to another gets a free one with a number.
void rename_pages(std::vector<PagePlan>& pages, const Settlement& settled, const SavedPages& saved,
                  const StringSet& named) {
  std::unordered_map<std::string, std::string> renamed;
  std::unordered_set<std::string> used(named.begin(), named.end());
  for (std::size_t i = 0; i < pages.size(); ++i) {
    const Saved* page = settled.page_of()[i];
    used.insert(page != nullptr ? page->first : pages[i].page_id);
    if (page != nullptr && page->first != pages[i].page_id) renamed.emplace(pages[i].page_id, page->first);
  }
  std::unordered_set<std::string> kept;
  for (const auto& [from, to] : renamed) kept.insert(to);
  for (const OwnPage& own : settled.own_pages()) kept.insert(own.saved->first);
  for (std::size_t i = 0; i < pages.size(); ++i) {
    const std::string& id = pages[i].page_id;
    if (settled.page_of()[i] != nullptr || kept.count(id) == 0) continue;
    std::string free;
    for (int number = 2; free.empty() || saved.count(free) > 0 || !used.insert(free).second; ++number)
      free = id + "-" + std::to_string(number);
    renamed.emplace(id, std::move(free));
  }
  const auto rename = [&](std::string& id) {
    if (const auto found = renamed.find(id); found != renamed.end()) id = found->second;
  };
  for (PagePlan& page : pages) {
    rename(page.page_id);
    rename(page.parent);
    for (std::string& id : page.related_pages) rename(id);
  }
}

// Takes the files of pages of their own out of the pages that did not have them at their save. What is left
// without any is dropped later, unless the configuration names it: then it keeps them all, too.
void leave_files(std::vector<PagePlan>& pages, const Settlement& settled, const StringSet& named) {
  std::unordered_set<std::string_view> owned;
  for (const OwnPage& own : settled.own_pages()) owned.insert(own.files.begin(), own.files.end());
  for (std::size_t i = 0; i < pages.size(); ++i) {
    if (pages[i].type != "module") continue;
    std::vector<std::string> left;
    for (const std::string& file : pages[i].source_files) {
      if (owned.count(file) == 0 || settled.tells(i, file)) left.push_back(file);
    }
    if (!left.empty() || named.count(pages[i].page_id) == 0) pages[i].source_files = std::move(left);
  }
}

// Its importance is its neighbour's and not the saved one, which a clone need not know.
PagePlan page_of_its_own(const OwnPage& own, const PagePlan* beside, UniqueNames& names) {
  PagePlan page;
  page.page_id = own.saved->first;
  page.title = names.title(page.page_id);
  page.description =
      "What this page was written about: " + counted(static_cast<std::int64_t>(own.files.size()), "file") +
      ", of which the tree suggests no page any more.";
  page.importance = beside != nullptr ? beside->importance : "medium";
  page.type = "module";
  page.source_files = own.files;
  // Beside and not below: a page with children no longer tells the pages above it (gives_digest()).
  if (beside != nullptr) {
    page.parent = beside->parent;
    page.related_pages = {beside->page_id};
  }
  return page;
}

// The pages in their order, each page of its own behind the one that it stands beside and what is below that.
std::vector<PagePlan> with_own_pages(std::vector<PagePlan> pages, const Settlement& settled) {
  UniqueNames names;
  for (const PagePlan& page : pages) names.title(page.title);
  std::map<std::size_t, std::vector<PagePlan>> before;  // index of the page that they come before
  for (const OwnPage& own : settled.own_pages()) {
    const PagePlan* beside = own.beside != kNone ? &pages[own.beside] : nullptr;
    std::size_t at = beside != nullptr ? own.beside + 1 : pages.size();
    while (at < pages.size() && pages[at].level > beside->level) ++at;
    before[at].push_back(page_of_its_own(own, beside, names));
  }
  std::vector<PagePlan> all;
  all.reserve(pages.size() + settled.own_pages().size());
  for (std::size_t i = 0; i <= pages.size(); ++i) {
    if (const auto own = before.find(i); own != before.end())
      std::move(own->second.begin(), own->second.end(), std::back_inserter(all));
    if (i < pages.size()) all.push_back(std::move(pages[i]));
  }
  return all;
}

// Without the modules that have no files left. A page below one goes up to the page above it.
std::vector<PagePlan> without_empty(std::vector<PagePlan> pages) {
  std::unordered_map<std::string, std::string> dropped;  // id to the parent's, which comes before in the plan
  const auto go_up = [&](std::string& id) {
    for (auto above = dropped.find(id); above != dropped.end(); above = dropped.find(id)) id = above->second;
  };
  for (PagePlan& page : pages) {
    go_up(page.parent);
    if (page.type == "module" && page.source_files.empty()) dropped.emplace(page.page_id, page.parent);
  }
  std::erase_if(pages, [&](const PagePlan& page) { return dropped.count(page.page_id) > 0; });
  for (PagePlan& page : pages) {
    std::erase_if(page.related_pages, [&](const std::string& id) { return dropped.count(id) > 0; });
  }
  return pages;
}

}  // namespace

std::vector<PagePlan> keep_ids(std::vector<PagePlan> derived, const SavedPages& saved,
                               const source::SourceIndex& index, const StringSet& named) {
  const Settlement settled(derived, saved, index, named);
  if (settled.is_as_derived()) return derived;
  // A copy, as the settlement refers to the plan as derived.
  std::vector<PagePlan> pages = derived;
  rename_pages(pages, settled, saved, named);
  leave_files(pages, settled, named);
  pages = without_empty(with_own_pages(std::move(pages), settled));
  link_pages(pages);
  return pages;
}

}  // namespace ossilar::workers::wiki
