// Each claim is followed twice, from what it cited to the file before the change and to the file after it. So
// a page that is not up to date with the side before is told of this change alone.
//
// A side of a commit is an index of the files in question without their symbols. Symbols only tell `changed`
// from `gone`, and to start the symbol tool would take longer than all the rest.
#include "ossilar/workers/wiki/asking/affected.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <utility>

#include "ossilar/utils/hash.h"
#include "ossilar/workers/wiki/citing/follower.h"

namespace ossilar::workers::wiki {
namespace {

using source::Change;
using source::TreeChange;

// The changed files on one side of the change.
class ChangedSide {
 public:
  // Of a file without a text here nothing is known.
  void add(const std::string& path, std::optional<std::string> text) {
    if (text) texts_.emplace(path, *std::move(text));
  }

  std::unique_ptr<CitationFollower> follower(const Wiki& wiki) {
    std::vector<std::shared_ptr<const source::SourceFile>> files;
    files.reserve(texts_.size());
    for (const auto& [path, text] : texts_) {
      auto file = std::make_shared<source::SourceFile>();
      file->path = path;
      file->size = text.size();
      file->sha256 = source::ContentHash(utils::sha256_hex(text));
      file->lines = LineText(text).size();
      files.push_back(std::move(file));
    }
    index_ = std::make_unique<source::SourceIndex>(std::move(files));
    return wiki.follower(*index_, [this](const std::string& path) {
      const auto text = texts_.find(path);
      return text == texts_.end() ? std::nullopt : std::optional(text->second);
    });
  }

 private:
  std::map<std::string, std::string> texts_;
  std::unique_ptr<source::SourceIndex> index_;  // the follower's
};

std::set<std::string> paths_of(const Change& change) {
  std::set<std::string> paths;
  for (const TreeChange& file : change.files()) paths.insert(file.path);
  return paths;
}

// What a page rests on and does not cite by name.
std::vector<std::string> changed_sources(const Map& row, const std::set<std::string>& changed) {
  std::vector<std::string> sources;
  const Map hashes = utils::json_member(row, "source_hashes");
  for (const auto& [path, hash] : hashes.items())
    if (changed.count(path) > 0) sources.push_back(path);
  return sources;
}

// The pages that a change may concern, each with its claims about changed files.
std::vector<AffectedPage> candidates(Wiki& wiki, const std::set<std::string>& changed,
                                     const utils::Task& task) {
  const auto is_changed = [&](const Citation& citation) { return changed.count(citation.path) > 0; };
  std::vector<AffectedPage> pages;
  wiki.store()
      .pages_resting_on(wiki.branch(), changed)
      .for_each([&](const std::string& page_id, const Map& row) {
        task.check();
        AffectedPage page{.page_id = page_id,
                          .title = utils::string_member(row, "title"),
                          .claims = {},
                          .sources = changed_sources(row, changed)};
        for (PlacedClaim& claim : placed_claims(wiki.paths(), page_id, row, is_changed))
          page.claims.push_back({.claim = std::move(claim), .now = {}});
        if (!page.claims.empty() || !page.sources.empty()) pages.push_back(std::move(page));
      });
  return pages;
}

// Looks at the claims of pages on both sides.
class Comparer {
 public:
  Comparer(const Wiki& wiki, const Change& change, const std::vector<AffectedPage>& pages) {
    std::set<std::string> cited;
    for (const AffectedPage& page : pages)
      for (const AffectedClaim& claim : page.claims) cited.insert(claim.claim.known.citation.path);
    const auto is_gone = [&](const TreeChange& file) {
      return file.after.empty() && cited.count(file.path) > 0;
    };
    // What is new may be the new name of what is gone.
    const bool reads_new = std::any_of(change.files().begin(), change.files().end(), is_gone);
    for (const TreeChange& file : change.files()) {
      const bool is_cited = cited.count(file.path) > 0;
      if (is_cited) before_side_.add(file.path, change.before(file));
      if (is_cited || (reads_new && file.before.empty())) after_side_.add(file.path, change.after(file));
    }
    before_ = before_side_.follower(wiki);
    after_ = after_side_.follower(wiki);
  }

  // Whether the change concerns the claim. It gets its state after the change.
  bool concerns(AffectedClaim& claim) {
    const auto& [citation, heading, says, print] = claim.claim.known;
    const Looked before = before_->look(citation, print);
    const Looked after = after_->look(citation, print);
    claim.state = after.state;
    claim.now = after.now;
    const bool is_in_place = after.state == CitationState::same || after.state == CitationState::unknown;
    return !is_in_place && (before.state != after.state || before.now != after.now);
  }

 private:
  ChangedSide before_side_, after_side_;
  std::unique_ptr<CitationFollower> before_, after_;
};

PageCondition condition_of(const std::vector<AffectedClaim>& claims) {
  if (claims.empty()) return PageCondition::drifted;
  const bool is_moved = std::all_of(claims.begin(), claims.end(), [](const AffectedClaim& claim) {
    return claim.state == CitationState::moved;
  });
  return is_moved ? PageCondition::moved : PageCondition::stale;
}

}  // namespace

std::vector<AffectedPage> affected_pages(Wiki& wiki, const source::Comparison& compared,
                                         const utils::Task& task) {
  const Change change(wiki.paths().root, compared);
  std::vector<AffectedPage> pages = candidates(wiki, paths_of(change), task);
  Comparer comparer(wiki, change, pages);
  for (AffectedPage& page : pages) {
    task.check();
    std::erase_if(page.claims, [&](AffectedClaim& claim) { return !comparer.concerns(claim); });
    page.condition = condition_of(page.claims);
    if (page.condition != PageCondition::drifted) page.sources.clear();
  }
  std::erase_if(pages, [](const AffectedPage& page) { return page.claims.empty() && page.sources.empty(); });
  std::sort(pages.begin(), pages.end(), [](const AffectedPage& a, const AffectedPage& b) {
    return std::tuple(b.condition, a.page_id) < std::tuple(a.condition, b.page_id);
  });
  return pages;
}

}  // namespace ossilar::workers::wiki
