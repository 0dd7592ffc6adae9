// The world around a save: a fake host, and stand-ins for the functions of the modules beside the save
// pipeline, which this test links in their place. They behave as simply as they can, keep state, and log
// every call with its arguments (const reads of host members are not logged, but may fail too); the comma
// after a call() gives what it results in. One world lives at a time, on one thread.
#pragma once

#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ossilar/utils/best_effort.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/agent_save.h"
#include "ossilar/workers/wiki/plans.h"
#include "support/temp_dir.h"

namespace ossilar::workers::wiki {

using Text = std::optional<std::string>;
using Lines = std::vector<std::string>;
using Maps = std::vector<Map>;

// Arguments as JSON values, for the log.
template <class T>
Map shown(const T& value) {
  return value;
}
inline Map shown(const Text& text) { return text ? Map(*text) : Map(); }
inline Map shown(const Map* row) { return row != nullptr ? *row : Map(); }
Map shown(const std::vector<Text>& texts);
Map shown(const PagePlan& plan);  // description, source files, symbols
Map shown(const Plans& plans);    // the titles
Map shown(const utils::SnapshotMap<Map>& entries);
Map shown(const store::PageFields& fields);  // in order, without the build cache, which is logged by itself
Map shown(const store::WikiStateFields& fields);
std::string log_text(const Map& value);
std::string name_of(const std::string& line);  // what a line of the log tells of

// A text is a summary up to its first "## ", then the body.
Authored split(std::string_view text);

class World : public AgentSaveMixin, public store::Repository {
 public:
  explicit World(Map what_is_given = Map::object());
  ~World() override;

  using AgentSaveMixin::_draft_agent_page;
  using AgentSaveMixin::_save_answer;
  using AgentSaveMixin::_with_section;

  // What a test gives: the arguments of the save, and what the calls give in the place of the usual; the
  // transcripts name the keys.
  const Map given;
  Text given_text(const char* key) const {
    return given.contains(key) ? Text(given[key].get<std::string>()) : std::nullopt;
  }
  Answer save();

  // What was called: a line each. A log record is one too: logger, template, arguments, and a failure with
  // its causes.
  Lines log;
  std::string calls() const { return utils::join(log, "\n"); }
  std::string names() const;  // the names alone, a blank between

  // What fails: the call of that name, or the outside call number `fail_at`.
  std::map<std::string, std::exception_ptr, std::less<>> failing;
  int fail_at = 0;
  std::exception_ptr fault;
  struct AtFault {
    std::size_t logged;  // lines of the log
    bool locked;
    bool in_scope;  // of degraded steps
  };
  mutable std::optional<AtFault> at_fault;

  std::function<void()> before_lock;  // what others do while a save waits for the lock; once

  // What is planned and stored.
  std::vector<PagePlan> pages;
  WikiConfig config;
  PageType type;
  testing::TempDir dir;
  store::StoredRows rows;
  store::PageDigests stored_digests;
  std::optional<store::WikiStateFields> state;
  bool locked = false;

  template <class... Args>
  void call(std::string_view name, const Args&... args) {
    log.push_back(std::string(name) + "(" + utils::join({log_text(shown(args))...}, ", ") + ")");
    if (const auto found = failing.find(name); found != failing.end()) std::rethrow_exception(found->second);
    touch();
  }
  void touch() const;

 protected:
  store::Repository& repository() override { return touch(), *this; }
  const std::string& branch() const override { return touch(), branch_; }
  const std::filesystem::path& pages_dir() const override { return touch(), dir.path(); }
  store::StoredRows _existing() const override { return touch(), existing_; }
  store::PageDigests _page_digests() const override { return touch(), digests_; }
  const WikiConfig& wiki_config() const override { return touch(), config; }
  void _set_page_digests(store::PageDigests all) override { call("_set_page_digests", all), digests_ = all; }
  void _set_page_digest(const std::string& page_id, Map digest) override {
    call("_set_page_digest", page_id, digest), digests_.set(page_id, digest);
  }
  AgentPreparation _agent_prepare() override {
    call("_agent_prepare"), existing_ = rows;
    return {.plans = Plans(pages), .amendments = {"unused"}, .stale = {"unused"}, .remap = "unused"};
  }
  GatheredContext _gather_context(const PagePlan& plan) override {
    call("_gather_context", plan), utils::degraded("symbols", "no tool");
    return {.grounding = "ground", .symbols = {"sym"}, .files = {"a.cpp"}, .seeds = {"unused"}};
  }
  std::vector<Diagram> _build_diagrams(const PagePlan& plan) override {
    call("_build_diagrams", plan), utils::degraded("diagrams", "too many");
    return {{"Parts", "graph"}};
  }
  FinalizedPage _finalize(const PagePlan& plan, const std::string& authored,
                          const std::vector<Diagram>& diagrams, const FinalizeOptions& options) override {
    call("_finalize", plan, authored, diagrams, options.grounding), utils::degraded("finalize", "no scope");
    return {"# T\n" + authored, given.value("citations", Maps{"c1", "c2"}), "sum", {"A"}, split(authored)};
  }
  std::string _steering_text(const std::string& id) override { return call("_steering_text", id), "steer"; }
  Map _section_cache(const std::string& body, const Maps& valid) override {
    return call("_section_cache", body, valid), given.value("section_cache", Map{{"sections", {"A"}}});
  }
  std::map<std::string, std::string> _hashes_with_steering(const Lines& files) override {
    return call("_hashes_with_steering", files), std::map<std::string, std::string>{{"a.cpp", "ha"}};
  }
  ChunkScope _chunk_scope(const std::string& page_id) override {
    call("_chunk_scope", page_id);
    if (!locked) return {.elsewhere = {"e1"}, .shared = {"unused"}};
    return {given.value("elsewhere", StringSet{"e1"}), given.value("shared", StringSet{"s1"})};
  }
  Maps _chunk_and_embed(const std::string& text, const Maps& cited, const StringSet& scope) override {
    return call("_chunk_and_embed", text, cited, scope), Maps{"for " + log_text(scope)};
  }
  void _store_chunks(std::int64_t page_key, const std::string& id, const Maps& chunks,
                     const StringSet& shared) override {
    call("_store_chunks", page_key, id, chunks, shared);
  }
  store::PageDigests _load_digests() override { return call("_load_digests"), stored_digests; }
  void _reconcile_digests(const Plans& plans, const store::StoredRows& existing,
                          const ReconcileOptions& options) override {
    call("_reconcile_digests", plans, existing, options.persist), digests_.erase("gone");
  }
  void _persist_digests() override { call("_persist_digests"), stored_digests = digests_; }
  void _mark_synthesis_stale(const std::map<std::string, Lines>& dependents) override {
    call("_mark_synthesis_stale", dependents);
  }
  void _write_index_and_manifest(const WikiBuildResult& result) override {
    call("_write_index_and_manifest", result.git_commit, result.files_covered, result.lint);
  }
  std::int64_t _stored_files_covered() override { return call("_stored_files_covered"), 12; }
  Map _prior_lint_summary() override { return call("_prior_lint_summary"), Map{{"lint", 3}}; }
  std::string _git_commit() override { return call("_git_commit"), "c0ffee"; }
  void _reread_existing() override { call("_reread_existing"), existing_ = rows; }
  Lines citation_warnings(const std::string& markdown, const std::string& authored) override {
    return call("citation_warnings", markdown, authored), given.value("citation_warnings", Lines{});
  }
  void _acquire_write_lock(const AcquireOptions& options) override {
    if (const auto others = std::exchange(before_lock, nullptr)) others();
    call("_acquire_write_lock", options.wait), locked = true;
  }
  void _release_write_lock() override { call("_release_write_lock"), locked = false; }

  std::int64_t upsert_wiki_page(const std::string& branch, const std::string& id, const std::string& title,
                                const store::PageFields& fields) override {
    log.push_back(" build_cache " + fields.build_cache);
    call("upsert_wiki_page", branch, id, title, fields);
    return rows.set(id, Map{{"content_hash", fields.content_hash}, {"title", title}}), 41;
  }
  void upsert_wiki_state(const std::string& branch, const store::WikiStateFields& fields) override {
    call("upsert_wiki_state", branch, fields), state = fields;
  }
  store::StoredRows get_wiki_pages(const std::string& branch) override {
    return call("get_wiki_pages", branch), rows;
  }

 private:
  const std::string branch_ = "main";
  mutable int touches_ = 0;
  store::StoredRows existing_;
  store::PageDigests digests_;
};

}  // namespace ossilar::workers::wiki
