#include "ossilar/workers/wiki/asking/page_versions.h"

#include <algorithm>
#include <utility>

#include "ossilar/source/git/text_diff.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/host/history.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/pages/page_record.h"
#include "ossilar/workers/wiki/pages/page_version.h"

namespace ossilar::workers::wiki {
namespace {

using store::PageVersion;

// Digits up to this many are a number; a version's name has more, so a name of digits alone can still be
// given.
constexpr std::size_t kLongestNumber = 6;
// As in git. A shorter beginning would name another version after the next save.
constexpr std::size_t kShortestBeginning = 4;

// What a reader compares: the title and what an author wrote below it.
std::string readable(const std::string& text) {
  if (text.empty()) return "";
  return "# " + title_line(text) + "\n\n" + split_authored(text, "").text();
}

PageVersion with_text(Wiki& wiki, const std::string& page_id, PageVersion version) {
  version.text = wiki.store().version_text(wiki.branch(), page_id, version.number).value_or("");
  return version;
}

bool is_number(const std::string& name) {
  return !name.empty() && name.size() <= kLongestNumber &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool is_named(const PageVersion& version, const std::string& name) {
  if (is_number(name)) return version.number == std::stoll(name);
  return name.size() >= kShortestBeginning && version.version.starts_with(name);
}

Answer no_such_version(const PageHistory& history, const std::string& name, const char* why) {
  std::vector<std::string> kept;
  kept.reserve(history.versions.size());
  for (const PageVersion& version : history.versions)
    kept.push_back(std::to_string(version.number) + " " + version.version);
  return {{"error", "page '" + utils::printable(history.page_id) + "' has " + why + " '" +
                        utils::printable(name) + "'; name one of its versions by number or name"},
          {"page_id", history.page_id},
          {"versions", kept}};
}

// A text that a page had several times has several versions of one name; they read the same, and the newest
// stands for all.
std::variant<PageVersion, Answer> find_version(Wiki& wiki, const PageHistory& history,
                                               const std::string& name) {
  const PageVersion* found = nullptr;
  for (const PageVersion& version : history.versions) {
    if (!is_named(version, name)) continue;
    if (found != nullptr && found->version != version.version)
      return no_such_version(history, name, "more than one version that begins with");
    if (found == nullptr) found = &version;
  }
  if (found == nullptr) return no_such_version(history, name, "no kept version");
  return with_text(wiki, history.page_id, *found);
}

Answer without_history(Wiki& wiki, const PageHistory& history) {
  const bool is_known = WikiReader(wiki).has_page(history.page_id);
  return {{"error", "page '" + utils::printable(history.page_id) + "' has no history: " +
                        (is_known ? "versions are kept from its next save on"
                                  : "there is no such page; ossilar plan lists the pages")},
          {"page_id", history.page_id}};
}

// The page file as it stands, which a hand may have edited; for a removed page the note of its removal.
PageVersion standing_version(const Wiki& wiki, const PageHistory& history) {
  const StandingPage page = read_standing_page(wiki.paths().pages, wiki.paths().page(history.page_id));
  const PageVersion& newest = history.versions.front();
  PageVersion standing = newest.version == page.version() ? newest : PageVersion{};
  standing.version = page.version();
  standing.text = page.text;
  return standing;
}

// The newest kept version that reads otherwise than `text`; none if all read the same.
std::optional<PageVersion> last_other(Wiki& wiki, const PageHistory& history, const std::string& text) {
  const std::string now = readable(text);
  for (const PageVersion& version : history.versions) {
    PageVersion found = with_text(wiki, history.page_id, version);
    if (readable(found.text) != now) return found;
  }
  return std::nullopt;
}

std::string shown_name(const PageVersion& version) {
  return version.number == 0 ? "now" : std::to_string(version.number);
}

std::string diff_of(const std::string& page_id, const PageVersion& before, const PageVersion& after) {
  return source::unified_diff(
      {page_id + " (" + shown_name(before) + ", " + before.version + ")", readable(before.text)},
      {page_id + " (" + shown_name(after) + ", " + after.version + ")", readable(after.text)});
}

SaveOutcome refused(Answer answer) {
  return {.answer = std::move(answer), .failure = {}, .version = {}, .kept = {}};
}

}  // namespace

// The id itself comes first: a removed page has versions, and is neither stored nor perhaps planned.
PageHistory page_history(Wiki& wiki, const std::string& asked) {
  PageHistory history{.page_id = asked, .versions = wiki.store().page_versions(wiki.branch(), asked)};
  if (!history.versions.empty()) return history;
  const auto standing = WikiReader(wiki).standing_id(asked);
  if (!standing || *standing == asked) return history;
  return {.page_id = *standing, .versions = wiki.store().page_versions(wiki.branch(), *standing)};
}

std::variant<VersionComparison, Answer> compare_versions(Wiki& wiki, const std::string& asked,
                                                         const std::optional<std::string>& from,
                                                         const std::optional<std::string>& to) {
  const PageHistory history = page_history(wiki, asked);
  if (history.versions.empty()) return without_history(wiki, history);
  VersionComparison compared{.page_id = history.page_id, .before = {}, .after = {}, .diff = {}};
  for (const auto& [name, version] : {std::pair(&from, &compared.before), std::pair(&to, &compared.after)}) {
    if (!*name) continue;
    auto found = find_version(wiki, history, **name);
    if (auto* refusal = std::get_if<Answer>(&found)) return std::move(*refusal);
    *version = std::get<PageVersion>(std::move(found));
  }
  if (!to) compared.after = standing_version(wiki, history);
  if (!from) compared.before = last_other(wiki, history, compared.after.text).value_or(compared.after);
  compared.diff = diff_of(compared.page_id, compared.before, compared.after);
  return compared;
}

SaveOutcome restore_page(Wiki& wiki, const RestoreRequest& request, utils::Task& task) {
  const PageHistory history = page_history(wiki, request.page_id);
  if (history.versions.empty()) return refused(without_history(wiki, history));
  auto found = find_version(wiki, history, request.version);
  if (auto* refusal = std::get_if<Answer>(&found)) return refused(std::move(*refusal));
  const auto& version = std::get<PageVersion>(found);
  if (version.text.empty()) return refused(no_such_version(history, request.version, "no text in version"));
  const auto record = record_of(version.text);
  SaveRequest save{.page_id = history.page_id,
                   .content = split_authored(version.text, "").text(),
                   .if_version = request.if_version};
  if (record && !record->agent_title.empty()) save.title = record->agent_title;
  return save_page(wiki, save, task,
                   {.restores = record ? &*record : nullptr,
                    .change = {.client = request.client, .action = action::kRestored}});
}

}  // namespace ossilar::workers::wiki
