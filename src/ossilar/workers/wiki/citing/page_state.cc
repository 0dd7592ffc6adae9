// A state is computed whenever it is asked for. Storing "stale" when a source changes would need a process
// that watches at that moment, and a checkout that goes back would leave pages stale that match again. Only
// what no hash can tell is stored, as a mark: that a page which this one builds on changed its abstract.
//
// Hashes are compared and not times, as a clone or a switch of branches renews the times of files whose
// content is the same.
#include "ossilar/workers/wiki/citing/page_state.h"

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>

#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/link_text.h"

namespace ossilar::workers::wiki {
namespace {

// Files that a reason names; the rest is counted. A reason is read on one line, among those of other pages.
constexpr std::size_t kMostNamed = 5;

void add_reason(std::vector<std::string>& reasons, const char* what, std::vector<std::string> files) {
  if (files.empty()) return;
  const std::size_t more = files.size() > kMostNamed ? files.size() - kMostNamed : 0;
  files.resize(files.size() - more);
  std::string reason = std::string(what) + ": " + utils::join(files, ", ");
  if (more > 0) reason += " and " + std::to_string(more) + " more";
  reasons.push_back(std::move(reason));
}

// What a page rests on and did not cite, as far as it differs from what it was.
struct Drift {
  std::vector<std::string> changed, removed, added;
  bool is_steered_otherwise = false;

  bool is_any() const { return !changed.empty() || !removed.empty() || !added.empty(); }
};

// "src/a.cc (12 of 340 lines)" where both versions are there, else the path alone.
std::string with_amount(const std::string& path, const FileVersion& version, const source::SourceIndex& index,
                        CitationFollower& follower) {
  const auto lines = follower.changed_lines(path, version);
  if (!lines) return path;
  return path + " (" + std::to_string(std::max(lines->removed, lines->added)) + " of " +
         std::to_string(index.find(path)->lines) + " lines)";
}

// A file that has another path and the same content is the same file: where a page's removed source stands
// under a new path among the added ones, neither has changed.
void pair_renamed(Drift& drift, const Map& hashes, const source::SourceIndex& index) {
  std::erase_if(drift.removed, [&](const std::string& path) {
    const std::string hash = utils::string_member(hashes, path.c_str());
    const auto same = std::find_if(drift.added.begin(), drift.added.end(), [&](const std::string& added) {
      const source::SourceFile* file = index.find(added);
      return file != nullptr && !hash.empty() && file->sha256.hex() == hash;
    });
    if (same == drift.added.end()) return false;
    drift.added.erase(same);
    return true;
  });
}

// The parts of a row that are JSON texts. All pages are judged at once, and to parse them is most of that.
struct RowParts {
  explicit RowParts(const Map& row)
      : citations(utils::json_member(row, "citations")),
        hashes(utils::json_member(row, "source_hashes")),
        cache(build_cache_of(&row)) {}

  const Map citations, hashes, cache;
};

std::vector<KnownClaim> remembered(const RowParts& parts) {
  std::vector<KnownClaim> claims = claims_of(parts.citations.get_ref<const Map::array_t&>());
  const Map& lost = utils::member(parts.cache, kLostClaims);
  if (lost.is_array()) {
    for (KnownClaim& claim : claims_of(lost.get_ref<const Map::array_t&>()))
      claims.push_back(std::move(claim));
  }
  // In rows of an earlier format the hashes of the sources tell which version was cited.
  for (KnownClaim& claim : claims) {
    std::string& version = claim.print.file.hash;
    if (version.empty())
      version = utils::string_member(parts.hashes, claim.citation.path.c_str()).substr(0, 16);
  }
  return claims;
}

// Cited files count whoever planned them. Their versions come from the claims, as each section has its own.
Drift drift_of(const Map& hashes, const PagePlan& plan, const std::vector<KnownClaim>& claims,
               const source::SourceIndex& index, const std::string& steering, CitationFollower& follower) {
  Drift drift;
  std::map<std::string, FileVersion> cited;  // one that differs, by path
  for (const KnownClaim& claim : claims) {
    const source::SourceFile* now = index.find(claim.citation.path);
    const std::string& hash = claim.print.file.hash;
    if (now != nullptr && !hash.empty() && version_hash(*now) != hash)
      cited.emplace(claim.citation.path, claim.print.file);
  }
  for (const auto& [path, version] : cited)
    drift.changed.push_back(with_amount(path, version, index, follower));
  for (const auto& [file, hash] : hashes.items()) {
    if (file == kSteeringSource) continue;
    const source::SourceFile* now = index.find(file);
    if (now == nullptr) {
      drift.removed.push_back(file);
    } else if (cited.count(file) == 0 && now->sha256.hex() != utils::text_form(hash)) {
      drift.changed.push_back(file);
    }
  }
  for (const std::string& file : plan.stored_source_files())
    if (!hashes.contains(file)) drift.added.push_back(file);
  pair_renamed(drift, hashes, index);
  // "" stands for no steering on both sides, so steering that came or went counts as changed.
  const std::string then = utils::string_member(hashes, kSteeringSource);
  drift.is_steered_otherwise = then != (steering.empty() ? "" : utils::sha256_hex(steering));
  return drift;
}

std::string drift_text(Drift drift) {
  std::vector<std::string> reasons;
  add_reason(reasons, "changed", std::move(drift.changed));
  add_reason(reasons, "removed", std::move(drift.removed));
  add_reason(reasons, "added", std::move(drift.added));
  return utils::join(reasons, "; ");
}

bool is_unverified(const Map& row) { return utils::string_member(row, "status") == kUnverified; }

std::string doubts_text(const std::vector<Doubt>& doubts, bool (*wanted)(CitationState)) {
  std::vector<std::string> named;
  std::size_t count = 0;
  for (const Doubt& doubt : doubts) {
    if (!wanted(doubt.state)) continue;
    if (++count > kMostNamed) continue;
    named.push_back(doubt_text(doubt) + (doubt.section.empty() ? "" : " in '" + doubt.section + "'"));
  }
  if (count > kMostNamed) named.push_back(std::to_string(count - kMostNamed) + " more");
  return utils::join(named, "; ");
}

bool is_moved(CitationState state) { return state == CitationState::moved; }

// Files to the missing pages of the plan that have them among their sources; of several the one with the
// fewest, as it is most about them.
using Heirs = std::map<std::string, const PagePlan*>;

// Pages about other pages are no heirs: they have the sources of many.
Heirs heirs_in(const Plans& plans, const store::StoredRows& rows) {
  Heirs heirs;
  for (std::size_t i = 0; i < plans.size(); ++i) {
    if (rows.find(plans[i].page_id) != nullptr || !plan_type(plans[i]).unit) continue;
    for (const std::string& file : plans[i].source_files) {
      const auto [heir, is_first] = heirs.emplace(file, &plans[i]);
      if (!is_first && plans[i].source_files.size() < heir->second->source_files.size())
        heir->second = &plans[i];
    }
  }
  return heirs;
}

// The page to which more than half of the claims went, or "".
std::string heir_of(const std::vector<KnownClaim>& claims, const Heirs& heirs, CitationFollower& follower) {
  std::map<std::string, std::size_t> counts;
  for (const KnownClaim& claim : claims) {
    const Looked looked = follower.look(claim.citation, claim.print);
    const auto heir = heirs.find(looked.now ? looked.now->path : claim.citation.path);
    if (looked.state != CitationState::gone && heir != heirs.end()) ++counts[heir->second->page_id];
  }
  for (const auto& [page_id, count] : counts)
    if (2 * count > claims.size()) return page_id;
  return "";
}

struct Asked {
  const source::SourceIndex& index;
  const std::string& steering;
  CitationFollower& follower;
  const Heirs& heirs;
};

void judge(PageState& state, const Map& row, const RowParts& parts, const PagePlan* plan,
           const std::string& mark, const Asked& asked) {
  const std::vector<KnownClaim> claims = remembered(parts);
  state.doubts = doubts_of(claims, asked.follower);
  if (plan == nullptr) {
    state.condition = PageCondition::orphaned;
    state.heir = heir_of(claims, asked.heirs, asked.follower);
    state.reason = "no longer in the plan; " + orphan_advice(state);
    return;
  }
  std::vector<std::string> reasons;
  if (std::string text = doubts_text(state.doubts, is_in_doubt); !text.empty())
    reasons.push_back(std::move(text));
  Drift drift;  // a page of which nothing is known has no hashes to compare
  if (!is_unverified(row))
    drift = drift_of(parts.hashes, *plan, claims, asked.index, asked.steering, asked.follower);
  if (drift.is_steered_otherwise) reasons.emplace_back("the steering for every page changed");
  if (!mark.empty()) reasons.push_back(mark);
  const bool is_unknown =
      is_unverified(row) ||
      std::any_of(claims.begin(), claims.end(), [](const auto& claim) { return !claim.print.is_known(); });
  if (!reasons.empty()) {
    state.condition = PageCondition::stale;
    state.reason = utils::join(reasons, "; ");
  } else if (is_unknown) {
    state.condition = PageCondition::unverified;
    state.reason = is_unverified(row) ? "its file does not record its sources; read it and save it"
                                      : "nobody knows what some of it cited; read it and confirm it";
  } else if (!state.doubts.empty()) {
    state.condition = PageCondition::moved;
    state.reason = doubts_text(state.doubts, is_moved);
  } else if (drift.is_any()) {
    state.condition = PageCondition::drifted;
    state.reason = drift_text(std::move(drift));
  } else {
    state.condition = PageCondition::ok;
  }
}

PageState state_of_row(const std::string& page_id, const Map& row, const PagePlan* plan,
                       const std::string& mark, const Asked& asked) {
  PageState state;
  state.page_id = page_id;
  state.title = utils::string_member(row, "title");
  state.type = utils::string_member(row, "page_type");
  state.parent = utils::string_member(row, "parent_section");
  state.level = utils::member(row, "level").is_number_integer() ? row.at("level").get<int>() : 0;
  const RowParts parts(row);
  state.citations = static_cast<std::int64_t>(parts.citations.size());
  const Map& words = utils::member(parts.cache, "words");
  state.words = words.is_number_integer() ? words.get<std::int64_t>() : 0;
  judge(state, row, parts, plan, mark, asked);
  return state;
}

PageState missing_page(const PagePlan& plan) {
  PageState state;
  state.page_id = plan.page_id;
  state.title = plan.title;
  state.type = plan.type;
  state.parent = plan.parent;
  state.level = plan.level;
  return state;
}

}  // namespace

namespace {

struct NamedCondition {
  PageCondition condition;
  const char* name;
  const char* meaning;
};
constexpr std::array<NamedCondition, kConditions.size()> kNames{
    NamedCondition{PageCondition::missing, "missing", "is not written yet"},
    NamedCondition{PageCondition::ok, "ok", "matches the source"},
    NamedCondition{PageCondition::drifted, "drifted",
                   "cites unchanged lines, while other parts of its sources changed"},
    NamedCondition{PageCondition::moved, "moved",
                   "cites text that now stands elsewhere; ossilar sync follows it"},
    NamedCondition{PageCondition::unverified, "unverified",
                   "was written by hand, nobody knows against which sources"},
    NamedCondition{PageCondition::stale, "stale", "no longer matches the source"},
    NamedCondition{PageCondition::orphaned, "orphaned", "is no longer in the plan"}};

const NamedCondition& named(PageCondition condition) {
  return kNames.at(static_cast<std::size_t>(condition));
}

}  // namespace

const char* condition_name(PageCondition condition) { return named(condition).name; }

const char* condition_meaning(PageCondition condition) { return named(condition).meaning; }

std::string doubt_text(const Doubt& doubt) {
  const std::string name = "[" + citation_label(doubt.citation) + "]";
  const std::string now = doubt.now ? "[" + citation_label(*doubt.now) + "]" : "";
  switch (doubt.state) {
    case CitationState::moved:
      return name + " moved to " + now;
    case CitationState::changed:
      return name + " changed" + (now.empty() || now == name ? "" : ", now " + now);
    case CitationState::gone:
      return name + " is gone";
    case CitationState::ambiguous:
      return name + " stands in several places now";
    default:
      return name + " " + state_name(doubt.state);
  }
}

std::string orphan_advice(const PageState& state) {
  const std::string remove = "ossilar remove " + state.page_id + " takes it away";
  if (state.heir.empty())
    return "ossilar rename " + state.page_id + " ID gives it the id of a missing page, " + remove;
  return "most of what it cites is in the missing page '" + state.heir + "': ossilar rename " +
         state.page_id + " " + state.heir + " makes it that page, " + remove;
}

std::vector<KnownClaim> remembered_claims(const Map& row) { return remembered(RowParts(row)); }

// Claims of the same lines in one section with the same fingerprint are one doubt.
std::vector<Doubt> doubts_of(const std::vector<KnownClaim>& claims, CitationFollower& follower) {
  std::vector<Doubt> doubts;
  std::set<std::tuple<std::string, Citation, CitationState>> seen;
  for (const KnownClaim& claim : claims) {
    const Looked looked = follower.look(claim.citation, claim.print);
    if (looked.state == CitationState::same || looked.state == CitationState::unknown) continue;
    if (seen.emplace(claim.heading, claim.citation, looked.state).second)
      doubts.push_back({claim.heading, claim.citation, looked.state, looked.now});
  }
  return doubts;
}

std::map<std::string, std::string> source_hashes(const std::vector<std::string>& files,
                                                 const source::SourceIndex& index,
                                                 const std::string& steering) {
  std::map<std::string, std::string> hashes;
  for (const std::string& path : files) {
    const source::SourceFile* file = index.find(path);
    hashes[path] = file != nullptr ? file->sha256.hex() : "";
  }
  if (!steering.empty()) hashes[kSteeringSource] = utils::sha256_hex(steering);
  return hashes;
}

std::vector<PageState> page_states(const Plans& plans, const store::StoredRows& rows,
                                   const std::map<std::string, std::string>& marks,
                                   const source::SourceIndex& index, const std::string& steering,
                                   CitationFollower& follower) {
  Heirs heirs;
  const Asked asked{index, steering, follower, heirs};
  std::vector<PageState> states;
  const auto add_stored = [&](const std::string& page_id, const Map& row) {
    const auto mark = marks.find(page_id);
    states.push_back(
        state_of_row(page_id, row, plans.find(page_id), mark == marks.end() ? "" : mark->second, asked));
  };
  std::size_t stored = 0;
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const Map* row = rows.find(plans[i].page_id);
    if (row != nullptr) {
      ++stored;
      add_stored(plans[i].page_id, *row);
    } else {
      states.push_back(missing_page(plans[i]));
    }
  }
  if (stored < rows.size()) heirs = heirs_in(plans, rows);  // only orphaned pages need them
  rows.for_each([&](const std::string& page_id, const Map& row) {
    if (plans.find(page_id) == nullptr) add_stored(page_id, row);
  });
  return states;
}

}  // namespace ossilar::workers::wiki
