#include "agent_save_world.h"

#include <algorithm>
#include <memory>

#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/diagrams.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/prose_words.h"
#include "ossilar/workers/wiki/repo_facts.h"
#include "ossilar/workers/wiki/sections.h"
#include "ossilar/workers/wiki/type_lint.h"

namespace ossilar::workers::wiki {
namespace {

World* world = nullptr;
Map* noted_steps = nullptr;  // of the open scope

PagePlan planned(const std::string& page_id, const std::string& title, const std::string& description) {
  PagePlan plan;
  plan.page_id = page_id, plan.title = title, plan.description = description;
  plan.importance = "high", plan.level = 2, plan.type = "module", plan.parent = "core";
  plan.related_pages = {"core"};
  return plan;
}

}  // namespace

Map shown(const std::vector<Text>& texts) {
  Map out = Map::array();
  for (const Text& text : texts) out.push_back(shown(text));
  return out;
}
Map shown(const PagePlan& plan) { return Map::array({plan.description, plan.source_files, plan.symbols}); }
Map shown(const Plans& plans) {
  Map out = Map::array();
  for (std::size_t i = 0; i < plans.size(); ++i) out.push_back(plans[i].title);
  return out;
}
Map shown(const utils::SnapshotMap<Map>& entries) {
  Map out = Map::object();
  entries.for_each([&](const std::string& key, const Map& value) { out[key] = value; });
  return out;
}
Map shown(const store::PageFields& f) {
  return Map::array({f.description, f.importance, f.level, f.parent_section, f.rel_path, f.source_files,
                     f.source_hashes, f.symbols, f.related_pages, f.citations, f.content_hash, f.model,
                     f.status, f.summary, f.page_type});
}
Map shown(const store::WikiStateFields& f) {
  return Map::array(
      {f.last_built_at, f.last_commit, f.changed_since_build, f.model, f.page_count, f.manifest_hash});
}
std::string log_text(const Map& value) { return value.dump(-1, ' ', false, Map::error_handler_t::replace); }
std::string name_of(const std::string& line) { return line.substr(0, line.find_first_of("( ", 1)); }

Authored split(std::string_view text) {
  const std::size_t at = std::min(text.find("## "), text.size());
  return {.body = std::string(text.substr(at)), .summary = std::string(text.substr(0, at))};
}

World::World(Map what_is_given) : given(std::move(what_is_given)) {
  world = this;
  utils::set_log_sink([this](const utils::LogRecord& record) {
    Map causes = Map::array();
    if (record.failure) {
      for (const utils::Cause& cause : record.failure->trace)
        causes.push_back(cause.type + ": " + cause.message);
    }
    const char* const level = record.level == utils::LogLevel::info ? "info" : "warning";
    call(level, record.logger, record.text, record.arguments, causes);
  });
  pages = {planned("core", "Core", "all"), planned("core/io", "IO", "about"),
           planned("core/io", "Twin", "twin")};
  pages[1].children = given.value("children", Lines{});
  config.diagrams = given.value("diagrams", true);
  config.min_citations_per_page = given.value("min_citations", config.min_citations_per_page);
  type.name = "module", type.unit = given.value("unit", true);
  const Map files = given.value("files", Map::object());
  for (const auto& [name, text] : files.items()) dir.write(name, text);
  const Map given_rows = given.value("rows", Map::object());
  for (const auto& [page_id, row] : given_rows.items()) rows.set(page_id, row);
}

World::~World() { utils::set_log_sink({}), world = nullptr; }

Answer World::save() {
  return save_agent_page(given.value("page", "core/io"), given.value("content", "S\n## A\na\n"),
                         given_text("section"), given_text("title"));
}

std::string World::names() const {
  Lines out;
  for (const std::string& line : log) {
    if (line.front() != ' ') out.push_back(name_of(line));
  }
  return utils::join(out, " ");
}

void World::touch() const {
  if (++touches_ != fail_at) return;
  at_fault = {log.size(), locked, noted_steps != nullptr};
  std::rethrow_exception(fault);
}

// ---- The modules beside the save pipeline.

Answer not_planned(const std::string& page_id, const Plans& plans) {
  return world->call("not_planned", page_id, plans), Answer{{"error", "not planned"}, {"page_id", page_id}};
}
std::string _serialize_diagrams(const std::vector<Diagram>& diagrams) {
  return world->call("_serialize_diagrams", diagrams), std::to_string(diagrams.size()) + " diagram";
}
Map _page_digest(const PagePlan& plan, const std::string& body, const Maps& citations) {
  return world->call("_page_digest", plan, body, citations), Map{{"abstract", "a"}};
}
Lines changed_abstracts(const store::PageDigests& before, const store::PageDigests& after) {
  return world->call("changed_abstracts", before, after), Lines{"core/io"};
}
std::map<std::string, Lines> synthesis_dependents(const Plans& plans, const Lines& changed) {
  return world->call("synthesis_dependents", plans, changed),
         std::map<std::string, Lines>{{"overview", changed}};
}
std::string Authored::text() const { return world->call("text", body, summary), summary + body; }
std::string searchable_text(std::string_view text) { return world->call("searchable_text", text), "search"; }
Lines section_headings(std::string_view text) {
  world->call("section_headings", text);
  Lines out;
  for (const std::string_view line : utils::split_lines(text)) {
    if (line.substr(0, 3) == "## ") out.emplace_back(line.substr(3));
  }
  return out;
}
Authored split_authored(std::string_view stored, std::string_view description) {
  return world->call("split_authored", stored, description), split(stored.substr(stored.find('\n') + 1));
}
Lines former_titles(const Map* row) {
  return world->call("former_titles", row), row != nullptr ? Lines{"First"} : Lines{};
}
Lines renamed(const Lines& former, const std::vector<Text>& shown_before, const std::string& title) {
  return world->call("renamed", former, shown_before, title), world->given.value("renamed", Lines{});
}
Text agent_title(const Map* row) { return world->call("agent_title", row), world->given_text("agent_title"); }
Answer retitle(PagePlan& plan, const Text& title, const Plans& plans, const store::StoredRows& existing) {
  world->call("retitle", plan.title, title, plans, existing);
  if (title && !title->empty()) plan.title = *title;
  return world->given.value(world->locked ? "refused_in_commit" : "refused_in_draft", Answer());
}
std::int64_t prose_words(std::string_view body) { return world->call("prose_words", body), 7; }
Text word_budget_warning(const PageType& type, std::int64_t words) {
  return world->call("word_budget_warning", type.name, words), world->given_text("budget");
}
std::string _text_hash(std::string_view text) {
  return world->call("_text_hash", text), "hash of " + std::to_string(text.size());
}
std::string _now_iso() { return world->call("_now_iso"), "noon"; }
void _atomic_write(const std::filesystem::path& path, std::string_view text) {
  const std::string name = path.lexically_relative(world->dir.path()).string();
  world->call("_atomic_write", name, text), world->dir.write(name, std::string(text));
}
bool same_heading(std::string_view a, std::string_view b) {
  return world->call("same_heading", a, b), utils::strip(a) == utils::strip(b);
}
Text replace_section(std::string_view body, std::string_view heading, std::string_view text) {
  world->call("replace_section", body, heading, text);
  const std::string mark = "## " + std::string(utils::strip(heading)) + "\n";
  const std::size_t at = body.find(mark);
  if (heading.empty() || at == std::string_view::npos) return std::nullopt;
  const std::size_t end = std::min(body.find("## ", at + mark.size()), body.size());
  return std::string(body.substr(0, at)).append(text).append(body.substr(end));
}
Maps page_type_findings(const Map& row, const std::string& markdown) {
  return world->call("page_type_findings", row, markdown), world->given.value("findings", Maps{});
}
Lines PagePlan::stored_source_files() const {
  return world->call("stored_source_files", source_files), Lines{"stored " + utils::join(source_files, ",")};
}
void backfill_source_files(PagePlan& plan, const Lines& files) {
  world->call("backfill_source_files", plan, files), plan.source_files = files;
}
const PageType& plan_type(const PagePlan& plan) { return world->call("plan_type", plan), world->type; }
std::string section_of(const PagePlan& plan) {
  return world->call("section_of", plan), "under " + plan.parent;
}

}  // namespace ossilar::workers::wiki

// The scope of degraded steps logs its beginning and its end.
namespace ossilar::utils {

using workers::wiki::noted_steps;
using workers::wiki::world;

DegradedScope::DegradedScope() : steps_(std::make_shared<Map>(Map::array())), outer_(nullptr) {
  noted_steps = steps_.get();
}
DegradedScope::~DegradedScope() { world->log.emplace_back("end_of_degraded_steps()"), noted_steps = nullptr; }
DegradedScope degraded_steps() { return world->call("degraded_steps"), DegradedScope(); }
void degraded(std::string_view step, std::string_view) {
  if (noted_steps != nullptr) noted_steps->push_back(step);
}

}  // namespace ossilar::utils
