// One table of names, and results that pass through finished() before they are sent. What a revision adds is
// asked for by what it is (has_structured_results) and not by its date, so that the code which answers names
// no dates.
#include "ossilar/mcp/protocol/revision.h"

#include <algorithm>
#include <array>
#include <utility>

namespace ossilar::mcp {
namespace {

// In the order of the enumeration: revision_name() takes a revision as an index.
constexpr std::array<std::pair<std::string_view, Revision>, 5> kRevisions{{
    {"2024-11-05", Revision::r2024_11_05},
    {"2025-03-26", Revision::r2025_03_26},
    {"2025-06-18", Revision::r2025_06_18},
    {"2025-11-25", Revision::r2025_11_25},
    {"2026-07-28", Revision::r2026_07_28},
}};

}  // namespace

const Revision* find_revision(std::string_view name) {
  const auto* const found = std::find_if(kRevisions.begin(), kRevisions.end(),
                                         [&](const auto& revision) { return revision.first == name; });
  return found == kRevisions.end() ? nullptr : &found->second;
}

// data() ends with a NUL, as every name is a literal.
const char* revision_name(Revision revision) {
  return kRevisions.at(static_cast<std::size_t>(revision)).first.data();
}

std::vector<std::string_view> stateless_revisions() {
  std::vector<std::string_view> names;
  for (const auto& [name, revision] : kRevisions) {
    if (is_stateless(revision)) names.push_back(name);
  }
  return names;
}

std::vector<std::string_view> revision_names() {
  std::vector<std::string_view> names;
  names.reserve(kRevisions.size());
  for (const auto& [name, revision] : kRevisions) names.push_back(name);
  return names;
}

Map server_info(Revision revision) {
  Map info{{"name", "ossilar"}, {"version", OSSILAR_VERSION}};
  if (has_structured_results(revision)) info["title"] = "ossilar: the wiki of this repository";
  return info;
}

Map server_capabilities(Revision revision) {
  Map capabilities{{"tools", Map::object()},
                   {"resources", {{"subscribe", true}, {"listChanged", true}}},
                   {"prompts", Map::object()},
                   {"logging", Map::object()}};
  // The method is older than its capability, and is answered in every revision.
  if (revision >= Revision::r2025_03_26) capabilities["completions"] = Map::object();
  return capabilities;
}

const char* instructions() {
  return "A wiki about this repository that agents write, checked against the source. list_pages shows which "
         "pages are missing or stale. To write a page, call page_context for what its author needs to know, "
         "then save_page, which checks the text and stores it or says what to fix. Cite the source of every "
         "claim as [path/to/file:L10-L20]. Before you change a page, read it with read_page, and pass the "
         "version you read to save_page as if_version. search_wiki answers questions about the code from the "
         "pages.";
}

Map finished(Revision revision, Map result) {
  if (!is_stateless(revision)) return result;
  result["resultType"] = "complete";
  result["_meta"][meta_key::kServerInfo] = server_info(revision);
  return result;
}

Map finished_for(Revision revision, Map result, int ttl_ms) {
  if (!is_stateless(revision)) return result;
  result["ttlMs"] = ttl_ms;
  result["cacheScope"] = "private";  // not for a cache that clients share: others may not see this repository
  return finished(revision, std::move(result));
}

}  // namespace ossilar::mcp
