// Refusals are answers with the key `error` and no exceptions: an agent reads them, mends its request and
// goes on.
//
// Suggestions by edit distance alone miss the usual mistake, a folder left out: "sql" is six edits from
// "store/sql". So an id that contains the one asked for, or is contained in it, is suggested as well.
#include "ossilar/workers/wiki/agent_answers.h"

#include <algorithm>
#include <vector>

#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::size_t kMostSimilar = 5;  // enough to choose from; `error` names the first one alone
// A longer id is no typing mistake, and the distance costs the product of the lengths. Ids from a session may
// be of any length.
constexpr std::size_t kLongestCompared = 100;

// Whether `asked` may be meant for `id`: up to half of its bytes are wrong, or one contains the other.
bool may_mean(std::string_view asked, std::string_view id, std::size_t apart) {
  return apart <= asked.size() / 2 || id.find(asked) != std::string_view::npos ||
         asked.find(id) != std::string_view::npos;
}

std::vector<std::string> similar_ids(std::string_view asked, const Plans& plans) {
  std::vector<std::pair<std::size_t, std::string>> ranked;
  if (asked.empty() || asked.size() > kLongestCompared) return {};
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const std::string& id = plans[i].page_id;
    if (id.size() > kLongestCompared) continue;
    const std::size_t apart = utils::edit_distance(asked, id);
    if (may_mean(asked, id, apart)) ranked.emplace_back(apart, id);
  }
  std::sort(ranked.begin(), ranked.end());  // by distance, then by id: the same question, the same answer
  if (ranked.size() > kMostSimilar) ranked.resize(kMostSimilar);
  std::vector<std::string> ids;
  ids.reserve(ranked.size());
  for (auto& [apart, id] : ranked) ids.push_back(std::move(id));
  return ids;
}

// require_utf8() throws, as suits a file. Here an agent wrote the text and can mend it, so the message
// becomes an answer.
std::optional<Answer> refuse_text(const std::string& text, const std::string& name) {
  try {
    utils::require_utf8(text, name);
  } catch (const utils::Error& error) {
    return Answer{{"error", error.what()}};
  }
  return std::nullopt;
}

}  // namespace

Answer not_planned(const std::string& page_id, const Plans& plans) {
  const std::vector<std::string> similar = similar_ids(page_id, plans);
  std::string error = "page '" + utils::printable(page_id) + "' is not in the plan of this wiki";
  error += similar.empty() ? "; list the pages, or add it to ossilar.toml as a [[page]]"
                           : "; did you mean '" + similar.front() + "'?";
  return {{"error", error}, {"page_id", page_id}, {"similar", similar}};
}

std::optional<Answer> refuse_request(const SaveRequest& request) {
  // The size first: it costs nothing to ask, and spares a look at every byte of an oversized text.
  if (request.content.size() > kLargestContent) {
    return Answer{{"error", "content has " + std::to_string(request.content.size()) + " bytes; at most " +
                                std::to_string(kLargestContent) +
                                " are taken. Split the page or save by section."}};
  }
  if (auto refusal = refuse_text(request.page_id, "page_id")) return refusal;
  if (auto refusal = refuse_text(request.content, "content")) return refusal;
  if (auto refusal = refuse_text(request.section.value_or(""), "section")) return refusal;
  if (auto refusal = refuse_text(request.place.value_or(""), "place")) return refusal;
  return refuse_text(request.title.value_or(""), "title");
}

}  // namespace ossilar::workers::wiki
