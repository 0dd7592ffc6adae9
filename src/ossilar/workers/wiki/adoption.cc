#include "ossilar/workers/wiki/adoption.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "ossilar/utils/files.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/digests.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;

const utils::Logger adoption_logger("ossilar.workers.wiki.adoption");

fs::path file_of(const fs::path& pages, const std::string& page_id) { return pages / (page_id + ".md"); }

template <class Value>
Value entry_value(const Map* entry, const char* key, Value otherwise) {
  if (entry == nullptr) return otherwise;
  const Map& value = utils::member(*entry, key);
  try {
    return value.is_null() ? otherwise : value.get<Value>();
  } catch (const Map::exception&) {
    return otherwise;  // another program's idea of a manifest; the page and its plan say enough
  }
}

// The title that stands for the page: as it is headed, which a former entry may know in its own spelling, or
// as it is planned.
std::string adopted_title(const std::string& text, const PagePlan* plan, const Map* entry) {
  const std::string heading = title_line(text);
  std::string known = entry_value<std::string>(entry, "title", "");
  if (heading.empty()) return known.empty() && plan != nullptr ? plan->title : known;
  return !known.empty() && utils::plain_inline(known) == heading ? known : heading;
}

// A title that is not the planned one is somebody's choice and is to stay, unless the manifest tells of this
// text that it is not: then the plan had it, and has another now.
std::string chosen_title(const std::string& title, const PagePlan* plan, const Map* entry, bool described) {
  if (described || plan == nullptr || utils::plain_inline(plan->title) == utils::plain_inline(title)) {
    return entry_value<std::string>(entry, AGENT_TITLE_KEY, "");
  }
  return title;
}

Map adopted_cache(const FinalizedPage& page, const Map& sections, const std::string& chosen,
                  const Map* entry) {
  Map cache{{"prose", page.authored.text()},
            {"diagrams", Map::array()},
            {"grounding_hash", ""},
            {"outline", page.outline},
            {"degraded", Map::array()}};
  for (const auto& [key, value] : sections.items()) cache[key] = value;
  if (!chosen.empty()) cache[AGENT_TITLE_KEY] = chosen;
  const auto former = entry_value<std::vector<std::string>>(entry, FORMER_TITLES_KEY, {});
  if (!former.empty()) cache[FORMER_TITLES_KEY] = former;
  return cache;
}

}  // namespace

ManifestContent load_manifest(const fs::path& wiki_dir) {
  const fs::path file = wiki_dir / "manifest.json";
  if (!utils::is_regular_file(file)) return {};
  return parse_manifest(utils::read_text_file_within(wiki_dir, file), file.string());
}

std::string title_line(const std::string& text) {
  if (text.compare(0, 2, "# ") != 0) return "";
  return utils::plain_inline(std::string_view(text).substr(2, text.find('\n') - 2));
}

bool gives_digest(const PagePlan* plan) {
  return plan != nullptr && plan_type(*plan).unit && plan->children.empty();
}

std::vector<fs::path> page_files(const fs::path& pages) {
  std::vector<fs::path> files;
  std::error_code ended;
  for (fs::recursive_directory_iterator at(pages, ended), end; !ended && at != end; at.increment(ended)) {
    if (at->symlink_status().type() == fs::file_type::regular && at->path().extension() == ".md") {
      files.push_back(at->path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

Arrivals arrivals_of(const ManifestContent& manifest, const store::StoredRows& rows, const fs::path& pages) {
  Arrivals arrivals;
  for (const auto& [page_id, entry] : manifest.pages) {
    const std::string& hash = entry.content_hash();
    const Map* row = rows.find(page_id);
    if (row != nullptr && utils::string_member(*row, "content_hash") == hash) continue;
    const fs::path file = file_of(pages, page_id);
    const utils::FileStamp stamp = utils::stamp_of(file);
    try {
      if (utils::is_regular_file(file) && _text_hash(utils::read_text_file_within(pages, file)) == hash) {
        arrivals.whole.push_back(page_id);
        continue;
      }
    } catch (const utils::Error& error) {
      adoption_logger.warning("a page is not taken over", error);
    }
    arrivals.awaited.emplace(file, stamp);
  }
  return arrivals;
}

std::map<std::string, Map> waiting_entries(const ManifestContent& manifest, const store::StoredRows& rows,
                                           const fs::path& pages) {
  std::map<std::string, Map> waiting;
  for (const auto& [page_id, entry] : manifest.pages) {
    std::error_code error;
    if (rows.find(page_id) == nullptr && fs::exists(fs::symlink_status(file_of(pages, page_id), error)))
      waiting.insert_or_assign(page_id, entry.value());
  }
  return waiting;
}

Adoption::Adoption(WikiGenerator& wiki, ManifestContent manifest, std::shared_ptr<const PlannedWiki> planned)
    : wiki_(wiki), manifest_(std::move(manifest)), planned_(std::move(planned)) {
  wiki_._reread_existing();
  wiki_.titles_.update(wiki_._existing(), planned_->plans);
  wiki_._set_page_digests(wiki_._load_digests());
}

// Many pages in one transaction, which is not to keep other processes from writing for long.
class Adoption::Batches {
 public:
  explicit Batches(store::WikiStore& store) : store_(store) {}

  template <class Work>
  void add(Work work) {
    if (!group_) {
      group_ = store_.begin_group("adopt pages");
      begun_ = std::chrono::steady_clock::now();
    }
    work();
    if (std::chrono::steady_clock::now() - begun_ > kLongest) end();
  }
  void end() {
    if (!group_) return;
    store_.index_waiting_words(0);
    group_->commit();
    group_.reset();
  }

 private:
  static constexpr std::chrono::milliseconds kLongest{100};
  store::WikiStore& store_;
  std::unique_ptr<store::WriteGroup> group_;
  std::chrono::steady_clock::time_point begun_;
};

AdoptionReport Adoption::run() {
  const fs::path pages = wiki_.pages_dir();
  Batches batches(*wiki_.store_);
  for (const fs::path& file : page_files(pages)) {
    batches.add([&] { adopt_file(file, file.lexically_relative(pages).replace_extension().string()); });
  }
  batches.end();
  store_digests();
  wiki_._reread_existing();
  return std::move(report_);
}

AdoptionReport Adoption::run_described() {
  Batches batches(*wiki_.store_);
  for (const std::string& page_id : arrivals_of(manifest_, wiki_._existing(), wiki_.pages_dir()).whole) {
    batches.add([&] {
      adopt_text(page_id,
                 utils::read_text_file_within(wiki_.pages_dir(), file_of(wiki_.pages_dir(), page_id)));
    });
    ++report_.adopted;
  }
  batches.end();
  store_digests();
  wiki_._reread_existing();
  return std::move(report_);
}

void Adoption::adopt_file(const fs::path& file, const std::string& page_id) {
  if (wiki_._existing().find(page_id) != nullptr) return;
  const bool listed = manifest_.pages.count(page_id) > 0;
  if (planned_->plans.find(page_id) == nullptr && !listed) {
    report_.unplanned.push_back(utils::valid_utf8(file.string()));
    return;
  }
  try {
    const std::string text = utils::read_text_file_within(wiki_.pages_dir(), file);
    adopt_text(page_id, text);
    ++report_.adopted;
    if (listed && !is_described(page_id, text)) report_.edited.push_back(page_id);
  } catch (const store::StorageError&) {
    throw;
  } catch (const utils::Error& error) {
    report_.failed.emplace_back(error.what());
  }
}

bool Adoption::is_described(const std::string& page_id, const std::string& text) const {
  return manifest_.describes(page_id, _text_hash(text));
}

Brackets Adoption::brackets_of(const std::string& page_id, const std::string& authored) const {
  return wiki_.brackets_of(authored, *planned_, planned_->plans.find(page_id));
}

void Adoption::adopt_text(const std::string& page_id, const std::string& text) {
  const bool described = is_described(page_id, text);
  const ManifestEntry* given = manifest_.entry_of(page_id, _text_hash(text));
  const store::StoredRows existing = wiki_._existing();
  const Map* row = existing.find(page_id);
  std::optional<Map> known;
  if (row != nullptr && !described) {
    known = manifest_entry(page_id, *row);
  } else if (given != nullptr) {
    known = given->value();
  }
  const Map* entry = known ? &*known : nullptr;
  const std::string title = adopted_title(text, planned_->plans.find(page_id), entry);

  FinalizedPage page;
  page.authored = split_authored(text, "");
  page.citations =
      page_links(brackets_of(page_id, page.authored.text()), page_id, wiki_.config_.dir).citations;
  page.outline = section_headings(page.authored.text());
  const std::vector<Map> citations = page.citations;

  const store::PageFields fields = fields_of(page_id, text, title, entry, std::move(page));
  // Who changed the text here need not have looked at what a mark is about.
  const std::int64_t key = described
                               ? wiki_.store_->upsert_wiki_page(wiki_.branch(), page_id, title, fields)
                               : wiki_.store_->upsert_keeping_mark(wiki_.branch(), page_id, title, fields);
  if (described) arrived_.insert(page_id);
  const ChunkScope scope = wiki_._chunk_scope(page_id);
  wiki_._store_chunks(key, page_id, wiki_._chunk_and_embed(searchable_text(text), citations, scope.elsewhere),
                      scope.shared);
  settle_digest(page_id, text, title, !described);
}

void Adoption::settle_digest(const std::string& page_id, const std::string& text, const std::string& title,
                             bool changed_here) {
  const PagePlan* plan = planned_->plans.find(page_id);
  if (!gives_digest(plan)) return;
  PagePlan titled = *plan;
  titled.title = title;
  const Authored authored = split_authored(text, "");
  const auto citations =
      page_links(brackets_of(page_id, authored.text()), page_id, wiki_.config_.dir).citations;
  if (changed_here || wiki_._page_digests().find(page_id) != nullptr) changed_.insert(page_id);
  wiki_._set_page_digest(page_id, _page_digest(titled, authored.body, citations));
}

void Adoption::store_digests() {
  wiki_.persist_digests(
      planned_->plans, [this](const std::string& page_id) { return changed_.count(page_id) > 0; }, arrived_);
}

store::PageFields Adoption::fields_of(const std::string& page_id, const std::string& text,
                                      const std::string& title, const Map* entry, FinalizedPage page) {
  using Strings = std::vector<std::string>;
  const PagePlan* plan = planned_->plans.find(page_id);
  const PagePlan planned = plan != nullptr ? *plan : PagePlan{};
  store::PageFields fields;
  fields.description = entry_value(entry, "description", planned.description);
  fields.importance =
      plan != nullptr ? planned.importance : entry_value<std::string>(entry, "importance", "low");
  fields.level = plan != nullptr ? planned.level : entry_value(entry, "level", 0);
  fields.parent_section = plan != nullptr ? section_of(planned) : "";
  fields.rel_path = "pages/" + page_id + ".md";
  fields.source_files = entry_value(entry, "source_files", planned.stored_source_files());
  // What the author saw is what the manifest says; without one, the sources as they are now have to do.
  fields.source_hashes =
      entry_value(entry, "source_hashes",
                  source_hashes(planned.stored_source_files(), *planned_->index, wiki_.config_.steering));
  fields.related_pages = entry_value<Strings>(entry, "related_pages", planned.related_pages);
  fields.content_hash = _text_hash(text);
  fields.model = kModel;
  fields.status = "ok";
  fields.summary = entry_value(entry, "summary", planned.description);
  fields.build_cache =
      utils::json_text(adopted_cache(page, wiki_._section_cache(page.authored.body, page.citations),
                                     chosen_title(title, plan, entry, is_described(page_id, text)), entry));
  fields.page_type = plan != nullptr ? planned.type : entry_value<std::string>(entry, "page_type", "topic");
  fields.citations = std::move(page.citations);
  return fields;
}

// ---- The host's entries.

AdoptionReport WikiGenerator::adopt_pages() {
  ManifestContent manifest = load_manifest(paths_.wiki);
  AdoptionReport report;
  with_write_lock([&] {
    report = Adoption(*this, std::move(manifest), planned()).run();
    if (utils::is_regular_file(paths_.wiki / "index.md") &&
        utils::is_regular_file(paths_.wiki / "manifest.json")) {
      return;
    }
    write_lists({.git_commit = _git_commit(),
                 .files_covered = _stored_files_covered(),
                 .lint = _prior_lint_summary()});
  });
  return report;
}

bool WikiGenerator::has_news(const utils::FileStamp& manifest) const {
  if (lists_.is_own(manifest)) return false;
  const std::lock_guard lock(state_mutex_);
  return manifest != seen_.manifest ||
         std::any_of(seen_.awaited.begin(), seen_.awaited.end(),
                     [](const auto& each) { return utils::stamp_of(each.first) != each.second; });
}

AdoptionReport WikiGenerator::adopt_described(bool wait) {
  const utils::FileStamp stamp = utils::stamp_of(paths_.wiki / "manifest.json");
  if (!has_news(stamp)) return {};
  AdoptionReport report;
  Arrivals arrivals;
  try {
    ManifestContent manifest = load_manifest(paths_.wiki);
    arrivals = arrivals_of(manifest, stored_pages(), paths_.pages);
    if (!arrivals.whole.empty()) {
      with_write_lock([&] { report = Adoption(*this, std::move(manifest), prepare()).run_described(); },
                      wait);
    }
  } catch (const store::StorageError&) {
    throw;
  } catch (const _WikiBusy&) {
    if (wait) throw;
    return {};
  } catch (const utils::Error& error) {
    adoption_logger.warning("no page is taken over from the manifest", error);
  }
  const std::lock_guard lock(state_mutex_);
  seen_ = {.manifest = stamp, .awaited = std::move(arrivals.awaited)};
  return report;
}

}  // namespace ossilar::workers::wiki
