#include "ossilar/web/page_view.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "ossilar/source/git/text_diff.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/text.h"
#include "ossilar/web/address.h"
#include "ossilar/web/html.h"
#include "ossilar/workers/wiki/asking/what_changed.h"
#include "ossilar/workers/wiki/citing/claims.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/plan/page_diagrams.h"

namespace ossilar::web {
namespace {

using ctemplate::TemplateDictionary;
using workers::wiki::Citation;
using workers::wiki::CitationState;
using workers::wiki::PageCondition;
using workers::wiki::PageState;

// Marks are work on the text around them. A page with more doubts is to be read anew as a whole.
constexpr std::size_t kMostMarks = 200;
// Of one citation's diff, in bytes, so that a rewritten file does not bury the page.
constexpr std::size_t kLongestDiff = std::size_t{16} * 1024;

// The citations in doubt at their places in the text: where the same lines are cited twice, each was written
// at its own time.
std::vector<CitationMark> marks_of(const Asked& asked, const PageState& page, const std::string& authored) {
  std::vector<CitationMark> marks;
  const Map* row = asked.site.rows().find(page.page_id);
  if (page.doubts.empty() || row == nullptr) return marks;
  const workers::wiki::KnownClaims known(workers::wiki::remembered_claims(*row));
  const auto follower = asked.site.wiki().follower(asked.site.planned());
  for (const auto& [claim, remembered] : known_in(authored, known)) {
    const workers::wiki::Looked looked = follower->look(remembered->citation, remembered->print);
    if (looked.state == CitationState::same || looked.state == CitationState::unknown) continue;
    if (marks.size() == kMostMarks) break;
    CitationMark mark;
    mark.citation = claim.citation;
    mark.state = looked.state;
    mark.says = workers::wiki::doubt_text({claim.heading, claim.citation, looked.state, looked.now});
    if (looked.only_formatting) mark.says += ", in white space alone";
    if (looked.now) mark.now_address = link_to_lines(asked, *looked.now);
    const auto before = follower->cited_text(remembered->citation, remembered->print);
    if (before && looked.state != CitationState::moved) {
      mark.diff = utils::utf8_prefix(
          source::unified_diff({"cited", *before},
                               {"now", text_now(asked.site.wiki(), looked.now).value_or("")}),
          kLongestDiff);
    }
    marks.push_back(std::move(mark));
  }
  return marks;
}

PageAddresses addresses_for(const Asked& asked, const PageState& page) {
  const Site& site = asked.site;
  const std::string file = site.wiki().config().dir + "/pages/" + page.page_id + ".md";
  return {.lines = [&asked](const Citation& citation) { return link_to_lines(asked, citation); },
          .page = [&asked](const std::string& id) { return link_to(asked, page_address(id)); },
          .relative = [&asked, &site, file](std::string_view target) -> std::string {
            std::string fragment;
            if (const std::size_t mark = target.find('#'); mark != std::string_view::npos) {
              fragment = "#" + encoded_path(target.substr(mark + 1));
              target = target.substr(0, mark);
            }
            const auto decoded_target = decoded(target.substr(0, target.find('?')));
            const auto path = decoded_target ? resolved_path(file, *decoded_target) : std::nullopt;
            if (!path) return "";
            const std::string pages = site.wiki().config().dir + "/pages/";
            if (path->starts_with(pages) && path->ends_with(".md")) {
              const std::string id = path->substr(pages.size(), path->size() - pages.size() - 3);
              return site.page(id) != nullptr ? link_to(asked, page_address(id)) + fragment : "";
            }
            const source::SourceFile* source = site.planned().index->find(*path);
            const bool is_text = source != nullptr && source->kind == source::FileKind::text;
            const std::string address = is_text ? link_to_source(asked, *path) : "";
            return address.empty() ? "" : address + fragment;
          }};
}

void add_way(TemplateDictionary& values, const Asked& asked, const PageState& page) {
  std::vector<const PageState*> above;
  constexpr std::size_t kDeepest = 64;  // ends a walk in a circle of parents
  for (const PageState* each = asked.site.page(page.parent); each != nullptr && above.size() < kDeepest;
       each = asked.site.page(each->parent))
    above.push_back(each);
  for (auto each = above.rbegin(); each != above.rend(); ++each) {
    TemplateDictionary* item = values.AddSectionDictionary("ABOVE");
    item->SetValue("URL", link_to(asked, page_address((*each)->page_id)));
    item->SetValue("TITLE", (*each)->title);
  }
}

void add_page_list(TemplateDictionary& values, const Asked& asked, const char* section,
                   const std::vector<const PageState*>& pages) {
  if (pages.empty()) return;
  TemplateDictionary* list = values.AddSectionDictionary(section);
  for (const PageState* page : pages) {
    TemplateDictionary* item = list->AddSectionDictionary("ITEM");
    item->SetValue("URL", link_to(asked, page_address(page->page_id)));
    item->SetValue("TITLE", page->title);
    set_state(*item, page->condition);
    if (page->condition != PageCondition::ok) item->ShowSection("STATE_MARK");
    const Map* row = asked.site.rows().find(page->page_id);
    const workers::wiki::PagePlan* plan = asked.site.planned().plans.find(page->page_id);
    const std::string summary = row != nullptr ? utils::string_member(*row, "summary") : "";
    item->SetValue("SUMMARY", summary.empty() && plan != nullptr ? plan->description : summary);
  }
}

void add_sources(TemplateDictionary& values, const Asked& asked, const std::vector<std::string>& sources) {
  constexpr std::size_t kMostListed = 60;
  if (sources.empty()) return;
  TemplateDictionary* list = values.AddSectionDictionary("SOURCES");
  list->SetIntValue("COUNT", static_cast<long>(sources.size()));
  for (std::size_t i = 0; i < std::min(sources.size(), kMostListed); ++i) {
    const source::SourceFile* file = asked.site.planned().index->find(sources[i]);
    const bool is_text = file != nullptr && file->kind == source::FileKind::text;
    const std::string url = is_text ? link_to_source(asked, sources[i]) : "";
    TemplateDictionary* item = list->AddSectionDictionary("ITEM");
    TemplateDictionary* shown = item->AddSectionDictionary(url.empty() ? "PLAIN" : "LINKED");
    shown->SetValue("PATH", sources[i]);
    shown->SetValue("URL", url);
  }
  if (sources.size() > kMostListed) {
    list->AddSectionDictionary("REST")->SetIntValue("COUNT", static_cast<long>(sources.size() - kMostListed));
  }
}

// What belongs to the page, written or not.
void add_surroundings(TemplateDictionary& values, const Asked& asked, const PageState& page) {
  const Site& site = asked.site;
  std::vector<const PageState*> children;
  for (const std::size_t index : site.children(page.page_id)) children.push_back(&site.pages()[index]);
  add_page_list(values, asked, "CHILDREN", children);
  const workers::wiki::PagePlan* plan = site.planned().plans.find(page.page_id);
  if (plan == nullptr) return;
  std::vector<const PageState*> related;
  for (const std::string& id : plan->related_pages)
    if (const PageState* other = site.page(id)) related.push_back(other);
  add_page_list(values, asked, "RELATED", related);
  add_sources(values, asked, plan->stored_source_files());
}

std::string short_number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

// Drawn from the plan as it is now, like the links beside them: a module that came since the page was written
// is among them.
std::string diagram_html(const Asked& asked, const PageState& page,
                         const workers::wiki::ModuleDiagram& diagram) {
  std::map<std::string_view, std::size_t> numbers;
  for (const auto& [from, to] : diagram.edges) numbers[from] = numbers[to] = 0;
  DiagramGraph graph;
  for (auto& [id, number] : numbers) {
    number = graph.labels.size();
    const PageState* other = asked.site.page(std::string(id));
    graph.labels.push_back(diagram_label(other != nullptr ? other->title : std::string(id)));
  }
  for (const auto& [from, to] : diagram.edges) graph.edges.emplace_back(numbers[from], numbers[to]);
  const auto layout = asked.site.diagrams().layout(graph);
  if (!layout) return "";
  TemplateDictionary values("diagram");
  values.SetValue("CAPTION", diagram.caption);
  values.SetValue("WIDTH", short_number(layout->width + 4));
  values.SetValue("HEIGHT", short_number(layout->height + 4));
  for (const DiagramLayout::Arrow& arrow : layout->arrows) {
    TemplateDictionary* item = values.AddSectionDictionary("ARROW");
    item->SetValue("PATH", arrow.path);
    item->SetValue("X", short_number(arrow.tip_x));
    item->SetValue("Y", short_number(arrow.tip_y));
    item->SetValue("ANGLE", short_number(arrow.angle));
  }
  for (const auto& [id, number] : numbers) {
    const DiagramLayout::Box& box = layout->boxes[number];
    TemplateDictionary* item = values.AddSectionDictionary("BOX");
    item->SetValue("URL", link_to(asked, page_address(id)));
    item->SetValue("LABEL", graph.labels[number]);
    item->SetValue("X", short_number(box.x));
    item->SetValue("Y", short_number(box.y));
    item->SetValue("WIDTH", short_number(box.width));
    item->SetValue("HEIGHT", short_number(box.height));
    item->SetValue("TEXT_X", short_number(box.x + box.width / 2));
    item->SetValue("TEXT_Y", short_number(box.y + box.height / 2 + 4.5));
    if (id == page.page_id) item->ShowSection("SELF");
  }
  return expanded("diagram.html", values);
}

void add_diagrams(TemplateDictionary& values, const Asked& asked, const PageState& page) {
  const workers::wiki::PlannedWiki& planned = asked.site.planned();
  const workers::wiki::PagePlan* plan = planned.plans.find(page.page_id);
  if (plan == nullptr || !asked.site.wiki().config().diagrams) return;
  std::string html;
  for (const workers::wiki::ModuleDiagram& diagram : module_diagrams(*plan, planned.plans, planned.graph()))
    html += diagram_html(asked, page, diagram);
  if (!html.empty()) values.AddSectionDictionary("DIAGRAMS")->SetValue("DRAWN", html);
}

void add_reason(TemplateDictionary& values, const PageState& page) {
  if (page.condition == PageCondition::ok || page.condition == PageCondition::missing) return;
  TemplateDictionary* notice = values.AddSectionDictionary("NOTICE");
  set_state(*notice, page.condition);
  notice->SetValue("REASON", page.reason);
}

// Whether the file holds both sides of a merge that nobody has settled.
bool is_merging(std::string_view text) {
  bool ours = false;
  for (const std::string_view line : utils::split_lines(text)) {
    if (line.starts_with("<<<<<<< ")) ours = true;
    if (ours && line.starts_with(">>>>>>> ")) return true;
  }
  return false;
}

void add_text(TemplateDictionary& values, const Asked& asked, const PageState& page, Frame& frame) {
  const Site& site = asked.site;
  const workers::wiki::WikiPaths& paths = site.wiki().paths();
  std::string text;
  try {
    text = page_text(paths, page.page_id);
  } catch (const utils::Error& error) {
    values.AddSectionDictionary("UNREADABLE")->SetValue("MESSAGE", error.what());
    return;
  }
  if (is_merging(text)) {
    values.ShowSection("MERGING");
    return;
  }
  const workers::wiki::PagePlan* plan = site.planned().plans.find(page.page_id);
  const std::string authored = workers::wiki::split_authored(text, "").text();
  const workers::wiki::Brackets brackets = brackets_of(authored, site.planned(), site.titles(), plan);
  PageHtml html = page_html(authored, brackets, page.page_id, site.wiki().config().dir,
                            marks_of(asked, page, authored), addresses_for(asked, page));
  values.SetValue("TEXT", html.html);
  frame.contents = std::move(html.contents);
  frame.has_mermaid = html.has_mermaid;
  frame.has_code = html.has_code;
}

}  // namespace

Document page_document(const Asked& asked, const PageState& page) {
  Frame frame{.title = page.title, .page_id = page.page_id, .kind = "page"};
  TemplateDictionary values("page");
  values.SetValue("TITLE", page.title);
  values.SetValue("TYPE", page.type);
  values.SetValue("HOME_URL", link_to(asked, std::string(kHome)));
  set_state(values, page.condition);
  add_way(values, asked, page);
  if (Site::is_written(page)) {
    TemplateDictionary* counts = values.AddSectionDictionary("COUNTS");
    counts->SetIntValue("WORDS", static_cast<long>(page.words));
    counts->SetIntValue("CITATIONS", static_cast<long>(page.citations));
    add_reason(values, page);
    add_text(values, asked, page, frame);
  } else {
    TemplateDictionary* missing = values.AddSectionDictionary("MISSING");
    missing->SetValue("PAGE_ID", page.page_id);
    if (const workers::wiki::PagePlan* plan = asked.site.planned().plans.find(page.page_id)) {
      missing->SetValue("DESCRIPTION", plan->description);
      missing->SetValue("PURPOSE", plan_type(*plan).purpose);
    }
  }
  add_diagrams(values, asked, page);
  add_surroundings(values, asked, page);
  frame.content = expanded("page.html", values);
  return {.html = framed(asked, frame), .has_mermaid = frame.has_mermaid};
}

}  // namespace ossilar::web
