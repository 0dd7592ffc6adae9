// The new file is written first and the old one goes last before the rows, so there is always a whole page
// file, and links lead to a file that is there. A kill in between leaves both, or the new file and the old
// row. The new file's record has the old id by then, which tells a renaming that was cut short from a
// stranger's file.
//
// The row is made as an adoption makes it, of the page's own record. A save would check the citations, which
// a page whose module went has none of, and take the sources as they are today.
#include "ossilar/workers/wiki/check/renaming.h"

#include <algorithm>
#include <utility>

#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/check/page_file.h"
#include "ossilar/workers/wiki/check/removal.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/pages/former_file.h"
#include "ossilar/workers/wiki/pages/page_record.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

Answer refused(const std::string& page_id, const std::string& why) {
  return {{"error", "page '" + utils::printable(page_id) + "' cannot be renamed: " + why},
          {"page_id", page_id}};
}

// The page's record as its file or its row have it. Of an unverified page nobody knows one.
PageRecord record_before(const std::string& text, const Map& row) {
  if (auto record = record_of(text)) return *std::move(record);
  return utils::string_member(row, "status") == kUnverified ? PageRecord{} : record_of_row(row);
}

// One renaming, under the write lock.
class Renaming {
 public:
  Renaming(Wiki& wiki, Renamed renamed, std::string client)
      : wiki_(wiki),
        renamed_(std::move(renamed)),
        client_(std::move(client)),
        rows_(wiki.stored_pages()),
        row_(rows_.find(renamed_.from)) {}

  Answer run(const std::optional<std::string>& if_version) {
    if (auto answer = answer_at_once()) return *std::move(answer);
    page_ = read_standing_page(wiki_.paths().pages, wiki_.paths().page(renamed_.from));
    if (auto refusal = refuse_other_page(wiki_, renamed_.from, page_, if_version)) return *std::move(refusal);
    if (auto refusal = refuse_text()) return *std::move(refusal);
    if (auto refusal = refuse_place()) return *std::move(refusal);
    return carry_out();
  }

 private:
  // What the rows alone decide.
  std::optional<Answer> answer_at_once() const {
    const Map* taken = rows_.find(renamed_.to);
    if (row_ != nullptr && renamed_.from == renamed_.to) return done({}, "", {});
    if (row_ == nullptr) {
      const auto ids = former_ids(taken);
      if (std::find(ids.begin(), ids.end(), renamed_.from) != ids.end()) return done({}, "", {});
      return refused(renamed_.from, why_not_stored(wiki_, renamed_.from));
    }
    if (taken == nullptr) return std::nullopt;
    return refused(renamed_.from, "'" + renamed_.to +
                                      "' is the id of a stored page; give that page another id, " +
                                      "or remove it with: ossilar remove " + renamed_.to);
  }

  std::optional<Answer> refuse_text() const {
    if (!page_.bytes)
      return refused(renamed_.from, "its file is gone; restore it, or run ossilar check --fix to forget it");
    if (!utils::first_invalid_utf8(*page_.bytes)) return std::nullopt;
    return refused(renamed_.from, "its file is not UTF-8; correct it, or save the page again");
  }

  // Whether there is a place for the page, in the plan and on disk. The plan is the one that the renaming
  // makes: a module may keep its sources under an id that the tree alone does not give.
  std::optional<Answer> refuse_place() {
    store::StoredRows rows = rows_;
    rows.erase(renamed_.from);
    Map row = *row_;
    if (const PagePlan* plan = wiki_.planned()->plans.find(renamed_.to)) row["page_type"] = plan->type;
    rows.set(renamed_.to, std::move(row));
    planned_ = wiki_.planned_with_rows(rows);
    if (planned_->plans.find(renamed_.to) == nullptr) {
      return refused(renamed_.from,
                     "'" + renamed_.to +
                         "' is not in the plan, so the page would stay orphaned; take an id that "
                         "ossilar plan lists as missing, or add it to ossilar.toml as a [[page]]");
    }
    new_text_ = text_after();
    const auto file = wiki_.paths().page(renamed_.to);
    if (!utils::is_there(file)) return std::nullopt;
    // The same text: a renaming that was cut short is called again.
    const bool is_ours =
        utils::is_regular_file(file) && read_standing_page(wiki_.paths().pages, file).text == new_text_;
    if (is_ours) return std::nullopt;
    return refused(renamed_.from, "there is already something at pages/" + renamed_.to +
                                      ".md that is no stored page; run ossilar check, or move it away");
  }

  bool is_edited() const { return _text_hash(page_.text) != saved_hash(row_); }

  // A heading that a hand wrote, "" for none.
  std::string heading_by_hand() const {
    const std::string heading = title_line(page_.text);
    return heading == title_as_heading(utils::string_member(*row_, "title")) ? "" : heading;
  }

  // The page file under the new id.
  std::string text_after() const {
    PageRecord record = record_before(page_.text, *row_);
    const std::string planned = planned_->plans.find(renamed_.to)->title;
    const std::string by_hand = heading_by_hand();
    const std::string title = by_hand.empty() ? agent_title(row_).value_or(planned) : by_hand;
    record.former_ids = wiki::renamed(record.former_ids, {renamed_.from}, renamed_.to);
    if (record.tells_of_text()) {
      record.former_titles = wiki::renamed(record.former_titles, {planned, record.title}, title);
      record.type = planned_->plans.find(renamed_.to)->type;
      record.title = title;
      if (!by_hand.empty()) record.agent_title.clear();
    }
    std::string text = relinked(page_.text, renamed_.from, renamed_);
    if (title_line(text) != title_as_heading(title)) text = with_title(text, title);
    if (generated_of(text).empty())
      text = assemble_page(titled(title), split_authored(text, ""), {}, {}).markdown;
    return with_record_replaced(text, record);
  }

  static PagePlan titled(const std::string& title) {
    PagePlan plan;
    plan.title = title;
    return plan;
  }

  Answer carry_out() {
    rewrite_page_file(wiki_, renamed_.to, new_text_, new_text_);
    std::vector<std::string> relinked = relink_pages(wiki_, renamed_, client_);
    const std::string kept = put_page_file_away(wiki_, renamed_.from, row_);
    store_rows();
    publish_rows(wiki_);
    wiki_.read_texts().put(new_text_);  // its version is in the answer
    std::vector<std::string> warnings;
    if (is_edited()) {
      warnings.emplace_back(
          "hand-edit: the page file was edited since its last save; it was renamed as it stands");
    }
    return done(relinked, kept, warnings);
  }

  // A text that a save has stored is vouched for under its new id too.
  void store_rows() {
    ManifestContent manifest;
    if (!is_edited()) manifest.described[renamed_.to] = {_text_hash(new_text_)};
    Adoption adoption(wiki_, std::move(manifest), {renamed_.to}, {renamed_.from});
    const auto transaction = wiki_.store().begin("rename the page " + renamed_.from + " to " + renamed_.to);
    move_row(wiki_, *transaction, adoption, renamed_, client_);
    adoption.store_digests(*transaction);
    transaction->commit();
  }

  Answer done(const std::vector<std::string>& relinked, const std::string& kept,
              const std::vector<std::string>& warnings) const {
    const auto rows = wiki_.stored_pages();
    return {{"renamed", true},
            {"page_id", renamed_.to},
            {"former_id", renamed_.from},
            {"title", utils::string_member(*rows.find(renamed_.to), "title")},
            {"rel_path", "pages/" + renamed_.to + ".md"},
            {"version", read_standing_page(wiki_.paths().pages, wiki_.paths().page(renamed_.to)).version()},
            {"relinked", relinked},
            {"kept", kept},
            {"warnings", warnings}};
  }

  Wiki& wiki_;
  const Renamed renamed_;
  const std::string client_;
  const store::StoredRows rows_;  // as they were before
  const Map* const row_;          // the page's, null if it is not stored
  StandingPage page_;
  std::shared_ptr<const PlannedWiki> planned_;  // as it is afterwards
  std::string new_text_;
};

}  // namespace

Answer rename_page(Wiki& wiki, const std::string& page_id, const std::string& new_id,
                   const std::optional<std::string>& if_version, const std::string& client,
                   utils::Task& task) {
  if (!is_page_id(new_id)) {
    return refused(page_id,
                   "'" + utils::printable(new_id) +
                       "' is no page id; take lower-case letters, digits, '-', '_' and '.', in parts "
                       "joined by '/'");
  }
  wiki.prepare();  // before the lock: a scan may take long
  task.begin_step("waiting for the write lock");
  Answer answer;
  try {
    wiki.with_write_lock(true, task, [&] {
      answer = Renaming(wiki, {page_id, new_id}, client).run(if_version);
    });
  } catch (const _WikiBusy& busy) {
    return {{"error", busy.what()}, {"page_id", page_id}};
  }
  return answer;
}

// The authored text tells it from a copy of a page that was renamed long ago, while another has its id now.
std::optional<std::string> renaming_cut_short(const Wiki& wiki, const store::StoredRows& rows,
                                              const std::string& text) {
  const auto record = record_of(text);
  if (!record || record->former_ids.empty()) return std::nullopt;
  const std::string& former = record->former_ids.back();
  if (rows.find(former) == nullptr) return std::nullopt;
  const StandingPage page = read_standing_page(wiki.paths().pages, wiki.paths().page(former));
  const bool is_same = !page.bytes || split_authored(page.text, "").text() == split_authored(text, "").text();
  return is_same ? std::optional(former) : std::nullopt;
}

// A page file that is not its row's, such as a hand's edit, gets the new definition too, and stays what its
// row does not know.
std::vector<std::string> relink_pages(Wiki& wiki, const Renamed& renamed, const std::string& client) {
  const store::StoredRows rows = wiki.stored_pages();
  std::vector<std::string> linking = pages_linking(wiki, rows, renamed.from);
  for (const std::string& page_id : linking) {
    if (page_id == renamed.to) continue;
    const std::string text = page_text(wiki.paths(), page_id);
    const std::string changed = relinked(text, page_id, renamed);
    rewrite_page_file(wiki, page_id, text, changed);
    const Map& row = *rows.find(page_id);
    if (_text_hash(text) != utils::string_member(row, "content_hash")) continue;
    const auto transaction = wiki.store().begin("store the page " + page_id);
    transaction->restate_page(wiki.branch(), page_id, _text_hash(changed),
                              utils::json_member(row, "citations").get<std::vector<Map>>());
    note_version(wiki, *transaction, page_id, {.client = client, .action = action::kRelinked}, changed, text);
    transaction->commit();
  }
  return linking;
}

void move_row(Wiki& wiki, store::WikiStore& store, Adoption& adoption, const Renamed& renamed,
              const std::string& client) {
  const auto marks = store.stale_marks(wiki.branch());
  store.move_versions(wiki.branch(), renamed.from, renamed.to);
  adoption.adopt_text(store, renamed.to, page_text(wiki.paths(), renamed.to),
                      {.client = client, .action = action::kRenamed});
  if (const auto mark = marks.find(renamed.from); mark != marks.end())
    store.mark_stale(wiki.branch(), {{renamed.to, mark->second}});
  store.remove_page(wiki.branch(), renamed.from);
  adoption.drop_digest(renamed.from);
}

}  // namespace ossilar::workers::wiki
