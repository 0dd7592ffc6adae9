// The plain way compares the text of pages. It would mark the pages above stale for every edit, which nobody
// would heed for long. So only what a page above can rest on is compared: which sections there are, and how
// each begins.
//
// Only the plan's synthesis pages are walked for topics and pages about the whole wiki, and parents are
// followed upward from the changed page: a save's cost does not grow with the number of pages about parts.
#include "ossilar/workers/wiki/digests.h"

#include <algorithm>
#include <map>

#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/repo_facts.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

// Bytes of a section's opening that go into the abstract: a sentence or two. More would mark the pages above
// stale for a change of detail, less would miss a change of what the part is.
constexpr std::size_t kLongestOpening = 280;

// The first paragraph, or lower heading, below the section's heading as plain text: markup and link targets
// may change freely.
std::string opening_of(const Section& section) {
  const std::string prose = utils::prose_text(section.text.substr(section.below));
  const std::string_view stripped = utils::strip(prose);
  return std::string(utils::utf8_prefix(stripped.substr(0, stripped.find('\n')), kLongestOpening));
}

Map openings_of(const std::vector<Section>& sections) {
  Map openings = Map::array();
  for (const Section& section : sections) {
    openings.push_back(Map{{"heading", section.heading}, {"opening", opening_of(section)}});
  }
  return openings;
}

// Lines that `ossilar sync` followed change nothing of what a page says.
Map uncited(Map openings) {
  for (Map& each : openings)
    each["opening"] = without_citations(each.at("opening").get_ref<const std::string&>());
  return openings;
}

std::string hash_of(const Map& openings) { return _text_hash(utils::json_text(openings)); }

// Digests that earlier versions stored hold the openings themselves, not their hash.
std::string abstract_of(const Map& digest) {
  const Map& abstract = utils::member(digest, "abstract");
  return abstract.is_array() ? hash_of(abstract) : utils::text_form(abstract);
}

// Linear: lists of related pages and of causes are usually short.
bool contains(const std::vector<std::string>& list, const std::string& wanted) {
  return std::find(list.begin(), list.end(), wanted) != list.end();
}

bool spans_the_wiki(const PagePlan& plan) { return plan.type == "overview" || plan.type == "architecture"; }

}  // namespace

Map _page_digest(const PagePlan& plan, const std::string& body, const std::vector<Map>& /*citations*/) {
  const Map openings = openings_of(sections_of(body));
  return {{"title", plan.title}, {"abstract", hash_of(openings)}, {"says", hash_of(uncited(openings))}};
}

// Digests of earlier versions have no `says`.
bool same_abstract(const Map& a, const Map& b) {
  const std::string says = utils::string_member(a, "says");
  if (!says.empty() && says == utils::string_member(b, "says")) return true;
  return abstract_of(a) == abstract_of(b);
}

std::vector<std::string> changed_abstracts(const store::PageDigests& before,
                                           const store::PageDigests& after) {
  std::vector<std::string> changed;
  for_each_difference(before, after,
                      [&](const std::string& page_id, const Map* old_digest, const Map* new_digest) {
                        const bool both = old_digest != nullptr && new_digest != nullptr;
                        if (both && same_abstract(*old_digest, *new_digest)) return;
                        changed.push_back(page_id);
                      });
  return changed;
}

std::map<std::string, std::vector<std::string>> synthesis_dependents(
    const Plans& plans, const std::vector<std::string>& changed) {
  std::map<std::string, std::vector<std::string>> dependents;
  if (changed.empty()) return dependents;  // the usual save: nothing above it became stale
  for (const std::size_t i : plans.syntheses()) {
    const PagePlan& plan = plans[i];
    for (const std::string& page_id : changed) {
      const bool topic_about_it = plan.type == "topic" && contains(plan.related_pages, page_id);
      if (plan.page_id != page_id && (spans_the_wiki(plan) || topic_about_it)) {
        dependents[plan.page_id].push_back(page_id);
      }
    }
  }
  for (const std::string& page_id : changed) {
    // This ends: the plan refuses a cycle of parents. A parent that is an overview is in the list already.
    const PagePlan* plan = plans.find(page_id);
    for (plan = plan != nullptr ? plans.find(plan->parent) : nullptr; plan != nullptr;
         plan = plans.find(plan->parent)) {
      auto& causes = dependents[plan->page_id];
      if (!contains(causes, page_id)) causes.push_back(page_id);
    }
  }
  return dependents;
}

}  // namespace ossilar::workers::wiki
