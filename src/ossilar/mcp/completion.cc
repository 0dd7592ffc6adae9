// Completes what a person types into a client: ids of pages and headings of a page. Candidates are collected
// anew for each request, as pages come and go, and matched anywhere in the text: a person may remember only a
// part of an id.
#include <algorithm>

#include "ossilar/mcp/prompts.h"
#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/params.h"
#include "ossilar/mcp/protocol/uri.h"
#include "ossilar/utils/fold.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/finalize.h"

namespace ossilar::mcp {
namespace {

using workers::wiki::PageCondition;
using workers::wiki::PageState;
using workers::wiki::StoredPage;
using workers::wiki::Wiki;

constexpr std::size_t kMostValues = 100;  // the protocol's maximum; `hasMore` says that there are more

// What the arguments belong to, a prompt or a template, as far as it makes a difference.
struct Completed {
  bool stale_only = false;
};

// Throws for a prompt or template that does not exist.
Completed completed(const Map& reference) {
  const std::string type = required_string(reference, "type");
  if (type == "ref/prompt") {
    const std::string name = required_string(reference, "name");
    if (name == kWritePage || name == kRefreshStale || name == kWriteWiki)
      return {.stale_only = name == kRefreshStale};
    throw ProtocolError(error_code::kInvalidParams, "there is no prompt '" + name + "'");
  }
  if (type != "ref/resource")
    throw ProtocolError(error_code::kInvalidParams, "params.ref.type must be ref/prompt or ref/resource");
  const std::string uri = required_string(reference, "uri");
  if (uri == kPageTemplate || uri == kSectionTemplate || uri == kDraftTemplate) return {};
  throw ProtocolError(error_code::kInvalidParams, "there is no resource template '" + uri + "'");
}

std::vector<std::string> page_ids(Wiki& wiki, bool stale_only) {
  std::vector<std::string> ids;
  for (const PageState& page : workers::wiki::WikiReader(wiki).page_states()) {
    if (!stale_only || page.condition == PageCondition::stale) ids.push_back(page.page_id);
  }
  return ids;
}

// The headings of the page that the client says was chosen before. None without such a page: a client may ask
// before the page is chosen, and that is no error.
std::vector<std::string> headings(Wiki& wiki, const Map& params) {
  const Map& chosen = optional_object(optional_object(params, "context"), "arguments");
  const auto found =
      workers::wiki::WikiReader(wiki).read_page(optional_string(chosen, "page_id").value_or(""));
  const auto* page = std::get_if<StoredPage>(&found);
  if (page == nullptr) return {};
  return workers::wiki::section_headings(workers::wiki::split_authored(page->text, "").text());
}

// The candidates that contain what was typed, regardless of case: first those that begin with it. Stable, so
// that page ids stay in the plan's order and headings in the page's.
std::vector<std::string> matching(std::vector<std::string> candidates, const std::string& typed) {
  const std::string wanted = utils::fold(typed);
  const auto place = [&](const std::string& candidate) { return utils::fold(candidate).find(wanted); };
  candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                  [&](const std::string& each) { return place(each) == each.npos; }),
                   candidates.end());
  std::stable_partition(candidates.begin(), candidates.end(),
                        [&](const std::string& each) { return place(each) == 0; });
  return candidates;
}

}  // namespace

Map complete(workers::wiki::WikiProvider& provider, Revision revision, const Map& params) {
  const Completed reference = completed(required_object(params, "ref"));
  const Map& argument = required_object(params, "argument");
  const std::string name = required_string(argument, "name");
  // Any other argument, such as the name of a draft, has no candidates; that is no error either.
  std::vector<std::string> candidates;
  if (name == "page_id") candidates = page_ids(*provider.get(), reference.stale_only);
  if (name == "section") candidates = headings(*provider.get(), params);
  std::vector<std::string> values = matching(std::move(candidates), required_string(argument, "value"));
  const std::size_t total = values.size();
  values.resize(std::min(total, kMostValues));
  return finished(
      revision,
      Map{{"completion", Map{{"values", values}, {"total", total}, {"hasMore", total > kMostValues}}}});
}

}  // namespace ossilar::mcp
