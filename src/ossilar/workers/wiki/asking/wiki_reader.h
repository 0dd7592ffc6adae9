// What commands and sessions (operations/, mcp/) ask of an open wiki: how its pages stand, what the author of
// one needs, a page, the passages that answer a question. Nothing here takes the write lock, so a reader does
// not wait for the save that holds it. Nothing is written but what other machines saved of a wiki that is
// shared (host/shared_files.h), and a failure leaves nothing behind.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/grounding/grounding.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/passages/wiki_search.h"

namespace ossilar::workers::wiki {

// Whether the sources are scanned again. A command that has just prepared the wiki passes `spared`, as a
// second scan would find the same.
enum class Look { now, spared };

struct PageContext {
  PagePlan plan;
  Grounding grounding;
  std::string steering;
  std::string changes;  // see what_changed()
};

// What the author of the page is told before the sources: fields by name, in the order in which they are
// shown.
Map author_brief(const PageContext& context);

struct StoredPage {
  std::string page_id;  // another than was asked for, if that is a former one
  std::string text;     // the page file's
  std::string version;
};

struct WikiStatus {
  std::string branch;
  std::string commit;
  std::vector<PageState> pages;
  std::size_t indexed_files = 0;
  std::optional<store::WikiStateFields> last_write;  // none before the first save of the branch
};

// Thread-safety: every member may be called from any thread. Lifetime: the wiki must outlive it; making one
// costs nothing. Errors: what the store and the scan of the sources throw; a page id that nobody knows is an
// answer, not an error.
class WikiReader {
 public:
  explicit WikiReader(Wiki& wiki) : wiki_(wiki) {}

  // The states of all planned pages in the order of the plan, then of stored pages that no plan has any more.
  std::vector<PageState> page_states(Look look = Look::now) const;
  WikiStatus status(Look look = Look::now) const;
  // What an author of a planned page needs, or an answer with `error` for a page that is not planned.
  std::variant<PageContext, Answer> page_context(const std::string& page_id) const;
  // The id of the page that is planned or stored under `page_id`, else of the stored page that had this id
  // before a renaming; none if there is no such page.
  std::optional<std::string> standing_id(const std::string& page_id) const;
  // A stored page, by its id or a former one, or the answer that says why there is none. Throws utils::Error
  // for a file that cannot be read as a page.
  std::variant<StoredPage, Answer> read_page(const std::string& asked) const;
  // Whether the page is planned or stored.
  bool has_page(const std::string& page_id) const;
  // The passages of the stored pages that answer the query best, or an answer that refuses it.
  std::variant<SearchResult, Answer> search(const SearchRequest& request, const utils::Task& task) const;

 private:
  Wiki& wiki_;
};

}  // namespace ossilar::workers::wiki
