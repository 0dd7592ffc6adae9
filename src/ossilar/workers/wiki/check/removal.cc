// The file goes first, as rows follow files. Its text is in `replaced` by then, so nothing is lost wherever
// this ends.
#include "ossilar/workers/wiki/check/removal.h"

#include <utility>

#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/check/adoption.h"
#include "ossilar/workers/wiki/check/page_file.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/pages/link_targets.h"

namespace ossilar::workers::wiki {
namespace {

// Row, chunks and digest, in one transaction. A page that left the plan tells no page above it any more, so
// marks are due for a planned one alone.
void remove_row(Wiki& wiki, const Plans& plans, const std::string& page_id, const std::string& client,
                const std::string& text) {
  const auto transaction = wiki.store().begin("remove the page " + page_id);
  transaction->remove_page(wiki.branch(), page_id);
  note_removal(wiki, *transaction, page_id, client, text);
  store::PageDigests digests = transaction->load_digests(wiki.branch());
  const bool told = digests.find(page_id) != nullptr && plans.find(page_id) != nullptr;
  digests.erase(page_id);
  transaction->persist_digests(
      wiki.branch(), digests,
      told ? stale_reasons(synthesis_dependents(plans, {page_id})) : std::map<std::string, std::string>());
  transaction->commit();
}

// A page without a file has its text in the row alone.
std::string put_text_away(Wiki& wiki, const std::string& page_id, const Map& row) {
  std::string kept = put_page_file_away(wiki, page_id, &row);
  if (!kept.empty()) return kept;
  return Adoption(wiki, {}, {}).keep_former_text(page_id);
}

Answer remove_under_lock(Wiki& wiki, const Plans& plans, const std::string& page_id,
                         const std::optional<std::string>& if_version, const std::string& client) {
  const store::StoredRows rows = wiki.stored_pages();
  const Map* row = rows.find(page_id);
  if (row == nullptr) {
    return {{"error",
             "page '" + utils::printable(page_id) + "' cannot be removed: " + why_not_stored(wiki, page_id)},
            {"page_id", page_id}};
  }
  const StandingPage page = read_standing_page(wiki.paths().pages, wiki.paths().page(page_id));
  if (auto refusal = refuse_other_page(wiki, page_id, page, if_version)) return *std::move(refusal);
  const std::vector<std::string> linking = pages_linking(wiki, rows, page_id);
  const std::string kept = put_text_away(wiki, page_id, *row);
  remove_row(wiki, plans, page_id, client, page.text);
  publish_rows(wiki);
  return {{"removed", true}, {"page_id", page_id}, {"kept", kept}, {"linked_by", linking}};
}

}  // namespace

// What refuse_version() advises is for the author of a text.
std::optional<Answer> refuse_other_page(Wiki& wiki, const std::string& page_id, const StandingPage& page,
                                        const std::optional<std::string>& if_version) {
  if (!if_version) return std::nullopt;
  auto refusal = refuse_version(page_id, *if_version, page, wiki.read_texts(), "");
  if (!refusal) return std::nullopt;
  (*refusal)["error"] = "page '" + page_id + "' is no longer version " + utils::printable(*if_version) +
                        "; read it, and call again with if_version \"" + page.version() + "\"";
  if (!wiki.read_texts().find(*if_version)) refusal->erase("diff");
  return refusal;
}

std::string why_not_stored(Wiki& wiki, const std::string& page_id) {
  const auto standing = WikiReader(wiki).standing_id(page_id);
  if (!standing) return "it is not stored; ossilar plan lists the pages";
  return *standing == page_id ? "it is planned and not written yet" : "it has the id '" + *standing + "' now";
}

std::vector<std::string> pages_linking(const Wiki& wiki, const store::StoredRows& rows,
                                       const std::string& target) {
  std::vector<std::string> linking;
  rows.for_each([&](const std::string& page_id, const Map&) {
    if (page_id == target) return;
    try {
      if (links_to(page_text(wiki.paths(), page_id), page_id, target)) linking.push_back(page_id);
    } catch (const utils::Error&) {
      return;  // `ossilar check` names it
    }
  });
  return linking;
}

Answer remove_page(Wiki& wiki, const std::string& page_id, const std::optional<std::string>& if_version,
                   const std::string& client, utils::Task& task) {
  const auto planned = wiki.prepare();  // before the lock: a scan may take long
  task.begin_step("waiting for the write lock");
  Answer answer;
  try {
    wiki.with_write_lock(
        true, task, [&] { answer = remove_under_lock(wiki, planned->plans, page_id, if_version, client); });
  } catch (const _WikiBusy& busy) {
    return {{"error", busy.what()}, {"page_id", page_id}};
  }
  return answer;
}

}  // namespace ossilar::workers::wiki
