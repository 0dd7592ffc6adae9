#include "ossilar/web/lists_view.h"

#include <algorithm>
#include <variant>

#include "ossilar/utils/text.h"
#include "ossilar/web/address.h"
#include "ossilar/web/html.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"

namespace ossilar::web {
namespace {

using ctemplate::TemplateDictionary;
using workers::wiki::Answer;
using workers::wiki::PageCondition;
using workers::wiki::PageState;
using workers::wiki::SearchHit;
using workers::wiki::SearchResult;

constexpr std::size_t kMostCards = 60;      // top pages on the home page
constexpr std::size_t kMostStanding = 500;  // pages of one state that are listed
constexpr std::size_t kMostUncited = 100;   // source files without a citation
constexpr std::int64_t kHits = 20;
constexpr std::int64_t kHitsWhileTyping = 8;

std::string summary_of(const Site& site, const PageState& page) {
  const Map* row = site.rows().find(page.page_id);
  const workers::wiki::PagePlan* plan = site.planned().plans.find(page.page_id);
  std::string summary = row != nullptr ? utils::string_member(*row, "summary") : "";
  if (summary.empty() && plan != nullptr) summary = plan->description;
  return summary;
}

std::size_t count_of(const Site& site, PageCondition condition) {
  return static_cast<std::size_t>(
      std::count_if(site.pages().begin(), site.pages().end(),
                    [&](const PageState& page) { return page.condition == condition; }));
}

void add_counts(TemplateDictionary& values, const Asked& asked) {
  for (const PageCondition condition : workers::wiki::kConditions) {
    const std::size_t count = count_of(asked.site, condition);
    if (count == 0) continue;
    TemplateDictionary* item = values.AddSectionDictionary("COUNT");
    set_state(*item, condition);
    item->SetIntValue("NUMBER", static_cast<long>(count));
    item->SetValue("URL", link_to(asked, std::string(kStatePage)) + "#state-" +
                              workers::wiki::condition_name(condition));
  }
}

void add_card(TemplateDictionary& values, const Asked& asked, const PageState& page) {
  TemplateDictionary* card = values.AddSectionDictionary("CARD");
  card->SetValue("URL", link_to(asked, page_address(page.page_id)));
  card->SetValue("TITLE", page.title);
  card->SetValue("SUMMARY", summary_of(asked.site, page));
  set_state(*card, page.condition);
  if (page.condition != PageCondition::ok) card->ShowSection("STATE_MARK");
  if (const std::size_t below = asked.site.children(page.page_id).size(); below > 0)
    card->AddSectionDictionary("BELOW")->SetIntValue("NUMBER", static_cast<long>(below));
}

struct Coverage {
  std::size_t files = 0, cited = 0;
  std::vector<std::string> uncited;
};

Coverage coverage_of(const Site& site) {
  Coverage coverage;
  for (const auto& file : site.planned().index->files()) {
    if (file->kind != source::FileKind::text || file->lines == 0 || file->language.empty()) continue;
    ++coverage.files;
    if (site.cited().count(file->path) > 0) {
      ++coverage.cited;
    } else if (coverage.uncited.size() < kMostUncited) {
      coverage.uncited.push_back(file->path);
    }
  }
  return coverage;
}

void add_coverage(TemplateDictionary& values, const Asked& asked) {
  const Coverage coverage = coverage_of(asked.site);
  TemplateDictionary* section = values.AddSectionDictionary("COVERAGE");
  section->SetIntValue("FILES", static_cast<long>(coverage.files));
  section->SetIntValue("CITED", static_cast<long>(coverage.cited));
  section->SetIntValue("PERCENT",
                       static_cast<long>(coverage.files == 0 ? 0 : coverage.cited * 100 / coverage.files));
  if (coverage.uncited.empty()) return;
  TemplateDictionary* list = section->AddSectionDictionary("UNCITED");
  list->SetIntValue("NUMBER", static_cast<long>(coverage.files - coverage.cited));
  for (const std::string& path : coverage.uncited) list->AddSectionDictionary("FILE")->SetValue("PATH", path);
}

void add_standing(TemplateDictionary& values, const Asked& asked, PageCondition condition) {
  const std::size_t count = count_of(asked.site, condition);
  if (count == 0) return;
  TemplateDictionary* group = values.AddSectionDictionary("GROUP");
  set_state(*group, condition);
  group->SetIntValue("NUMBER", static_cast<long>(count));
  std::size_t listed = 0;
  for (const PageState& page : asked.site.pages()) {
    if (page.condition != condition || ++listed > kMostStanding) continue;
    TemplateDictionary* item = group->AddSectionDictionary("PAGE");
    item->SetValue("URL", link_to(asked, page_address(page.page_id)));
    item->SetValue("TITLE", page.title);
    if (!page.reason.empty()) item->AddSectionDictionary("REASON")->SetValue("TEXT", page.reason);
  }
  if (count > kMostStanding)
    group->AddSectionDictionary("REST")->SetIntValue("NUMBER", static_cast<long>(count - kMostStanding));
}

std::variant<SearchResult, Answer> found(const Site& site, const std::string& query, std::int64_t limit,
                                         const utils::Task& task) {
  return workers::wiki::WikiReader(site.wiki()).search({.query = query, .limit = limit}, task);
}

// Pages whose title, now or formerly, is what was asked for.
const PageState* titled(const Site& site, const std::string& query) {
  const auto id = site.page_of_title(query);
  return id ? site.page(*id) : nullptr;
}

}  // namespace

std::string home_document(const Asked& asked) {
  const Site& site = asked.site;
  TemplateDictionary values("home");
  values.SetValue("SITE", site.name());
  values.SetIntValue("PAGES", static_cast<long>(site.pages().size()));
  values.SetIntValue("FILES", static_cast<long>(site.planned().index->files().size()));
  const auto first = std::find_if(site.pages().begin(), site.pages().end(), [](const PageState& page) {
    return page.type == "overview" && Site::is_written(page);
  });
  if (first != site.pages().end()) {
    TemplateDictionary* overview = values.AddSectionDictionary("OVERVIEW");
    overview->SetValue("SUMMARY", summary_of(site, *first));
    overview->SetValue("URL", link_to(asked, page_address(first->page_id)));
    overview->SetValue("TITLE", first->title);
  }
  add_counts(values, asked);
  std::size_t cards = 0;
  for (const std::size_t index : site.children(""))
    if (++cards <= kMostCards) add_card(values, asked, site.pages()[index]);
  if (site.pages().empty()) values.ShowSection("EMPTY");
  return framed(asked, {.title = "Home", .content = expanded("home.html", values), .kind = "home"});
}

std::string state_document(const Asked& asked) {
  TemplateDictionary values("state");
  values.SetValue("BRANCH", asked.site.wiki().branch());
  if (!asked.site.commit().empty())
    values.AddSectionDictionary("AT")->SetValue("COMMIT", asked.site.commit().substr(0, 12));
  if (const auto& write = asked.site.last_write()) {
    TemplateDictionary* written = values.AddSectionDictionary("WRITTEN");
    written->SetValue("TIME", write->last_built_at);
    written->SetValue("WRITER", write->model);
  } else {
    values.ShowSection("UNWRITTEN");
  }
  add_counts(values, asked);
  add_coverage(values, asked);
  // What needs somebody first.
  for (const PageCondition condition :
       {PageCondition::stale, PageCondition::unverified, PageCondition::moved, PageCondition::drifted,
        PageCondition::orphaned, PageCondition::missing, PageCondition::ok})
    add_standing(values, asked, condition);
  return framed(asked,
                {.title = "State of the wiki", .content = expanded("state.html", values), .kind = "state"});
}

std::string search_document(const Asked& asked, const std::string& query, const utils::Task& task) {
  TemplateDictionary values("search");
  values.SetValue("QUERY", query);
  values.SetValue("SEARCH_URL", link_to(asked, std::string(kSearchPage)));
  if (!asked.edition.is_live) {
    values.ShowSection("BY_SCRIPT");
  } else if (!utils::strip(query).empty()) {
    if (const PageState* page = titled(asked.site, query)) {
      TemplateDictionary* exact = values.AddSectionDictionary("EXACT");
      exact->SetValue("URL", link_to(asked, page_address(page->page_id)));
      exact->SetValue("TITLE", page->title);
    }
    const auto result = found(asked.site, query, kHits, task);
    if (const auto* refusal = std::get_if<Answer>(&result)) {
      values.AddSectionDictionary("MESSAGE")->SetValue("TEXT", utils::string_member(*refusal, "error"));
    } else {
      const std::vector<SearchHit>& hits = std::get<SearchResult>(result).hits;
      for (const SearchHit& hit : hits) {
        TemplateDictionary* item = values.AddSectionDictionary("HIT");
        item->SetValue("URL", link_to(asked, page_address(hit.page_id)));
        item->SetValue("TITLE", hit.title);
        if (!hit.section.empty()) item->AddSectionDictionary("SECTION")->SetValue("TEXT", hit.section);
        item->SetValue("EXCERPT", hit.excerpt);
      }
      if (hits.empty()) values.AddSectionDictionary("MESSAGE")->SetValue("TEXT", "Nothing was found.");
    }
  }
  return framed(
      asked,
      {.title = "Search", .content = expanded("search.html", values), .kind = "search", .query = query});
}

std::string search_json(const Site& site, const std::string& query, const utils::Task& task) {
  Map hits = Map::array();
  if (const PageState* page = titled(site, query)) {
    hits.push_back(Map{{"title", page->title},
                       {"section", ""},
                       {"url", page_address(page->page_id)},
                       {"excerpt", summary_of(site, *page)}});
  }
  const auto result = found(site, query, kHitsWhileTyping, task);
  if (const auto* refusal = std::get_if<Answer>(&result)) return utils::json_text(*refusal);
  for (const SearchHit& hit : std::get<SearchResult>(result).hits) {
    hits.push_back(Map{{"title", hit.title},
                       {"section", hit.section},
                       {"url", page_address(hit.page_id)},
                       {"excerpt", hit.excerpt}});
  }
  return utils::json_text(Map{{"hits", hits}});
}

std::string message_document(const Asked& asked, const std::string& title, const std::string& message) {
  TemplateDictionary values("message");
  values.SetValue("TITLE", title);
  values.SetValue("MESSAGE", message);
  values.SetValue("HOME_URL", link_to(asked, std::string(kHome)));
  return framed(asked, {.title = title, .content = expanded("message.html", values), .kind = "message"});
}

}  // namespace ossilar::web
