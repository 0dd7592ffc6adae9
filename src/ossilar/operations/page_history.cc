// Lists the kept versions of a page. The rules are in workers/wiki/asking/page_versions.h; this only
// translates.
#include <algorithm>

#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"
#include "ossilar/workers/wiki/asking/page_versions.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"

namespace ossilar::operations {
namespace {

constexpr std::size_t kMostVersions = 100;  // in a session: some 8,000 tokens

Map described_version(const store::PageVersion& version) {
  return {{"number", version.number}, {"version", version.version}, {"at", version.at},
          {"commit", version.commit}, {"client", version.client},   {"action", version.action}};
}

Result call_page_history(const Asked& asked) {
  const std::string asked_id = utils::string_member(asked.arguments, "page_id");
  const auto history = workers::wiki::page_history(asked.wiki, asked_id);
  if (history.versions.empty() && !workers::wiki::WikiReader(asked.wiki).has_page(history.page_id)) {
    return {.value = {{"error", "there is no page '" + asked_id + "', and no version of one is kept"},
                      {"page_id", asked_id}}};
  }
  const std::size_t total = history.versions.size();
  const std::size_t most = asked.caller == Caller::shell ? total : std::min(total, kMostVersions);
  Map versions = Map::array();
  for (std::size_t i = 0; i < most; ++i) versions.push_back(described_version(history.versions[i]));
  return {.value = Map{{"page_id", history.page_id}, {"versions", std::move(versions)}, {"total", total}}};
}

}  // namespace

Operation page_history() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  const Map version =
      object({{"number", count("its number, by which other tools know it")},
              {"version", text("its name, as read_page gives it; \"new\": the page was removed")},
              {"at", text("when it was made, ISO 8601")},
              {"commit", text("the commit that was checked out then")},
              {"client", text("the program that asked for it; empty if nobody knows")},
              {"action", text("what was done: saved, confirmed, followed, restored, renamed, "
                              "relinked, migrated, adopted, found or removed")}},
             {"number", "version", "at", "commit", "client", "action"});
  return {.command = "log",
          .tool = "page_history",
          .title = "History of a wiki page",
          .does = "List the last versions of a page: when, by whom, what was done",
          .description =
              "Lists the kept versions of a page, the newest first: when each was made, by which client, and "
              "what was done. Also of a page that was removed. Call compare_versions to see what changed.",
          .example = "ossilar log overview",
          .arguments = {page_argument()},
          .output_schema = object({{"page_id", text("the page; its id now, if you asked for a former one")},
                                   {"versions", list(version, "the newest first")},
                                   {"total", count("number of versions, also of those left out")},
                                   {"error", text("why there is no history")}}),
          .call = call_page_history};
}

}  // namespace ossilar::operations
