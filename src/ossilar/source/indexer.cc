#include "ossilar/source/indexer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <set>
#include <utility>

#include "ossilar/source/ctags.h"
#include "ossilar/source/file_reader.h"
#include "ossilar/source/last_look.h"
#include "ossilar/source/listing.h"
#include "ossilar/source/record.h"
#include "ossilar/source/refresh.h"
#include "ossilar/utils/best_effort.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

const utils::Logger logger("ossilar.source.indexer");

using Changes = std::map<std::string, std::optional<std::string>>;

std::int64_t system_clock() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

bool is_before(const Entry& a, const Entry& b) { return path_of(a) < path_of(b); }

// Stands for a record that is damaged, so that it is replaced or removed.
Entry unknown_entry(std::string_view path) {
  SourceFile file;
  file.path = path;
  return {.stamp = {}, .file = std::make_shared<const SourceFile>(std::move(file))};
}

Changes changes_between(const Entries& before, const Entries& after) {
  Changes changes;
  auto known = before.begin();
  const auto pass_removed = [&](const auto& is_passed) {
    for (; known != before.end() && is_passed(path_of(*known)); ++known)
      changes.emplace(path_of(*known), std::nullopt);
  };
  for (const Entry& entry : after) {
    const std::string& path = path_of(entry);
    pass_removed([&path](const std::string& other) { return other < path; });
    const bool is_known = known != before.end() && path_of(*known) == path;
    if (!is_known || *known != entry) changes.emplace(path, record_text(entry));
    if (is_known) ++known;
  }
  pass_removed([](const std::string&) { return true; });
  return changes;
}

std::shared_ptr<const SourceIndex> index_of(const Entries& entries) {
  std::vector<std::shared_ptr<const SourceFile>> files;
  files.reserve(entries.size());
  for (const Entry& entry : entries) files.push_back(entry.file);
  return std::make_shared<const SourceIndex>(std::move(files));
}

bool has_files_of(const SourceIndex& index, const Entries& entries) {
  const auto same = [](const auto& file, const auto& entry) { return file == entry.file; };
  return std::equal(index.files().begin(), index.files().end(), entries.begin(), entries.end(), same);
}

}  // namespace

class Indexer::Impl {
 public:
  explicit Impl(Options options) : options_(std::move(options)), excluded_(options_.excluded) {
    if (!options_.clock) options_.clock = system_clock;
    if (options_.watch) last_look_.emplace(options_.root, excluded_);
  }

  std::shared_ptr<const SourceIndex> refresh(const utils::Progress& progress) {
    const std::scoped_lock lock(refreshing_);
    const std::int64_t now = options_.clock();
    if (entries_ && last_look_ && last_look_->is_unchanged(now, *entries_) && !has_tool_come()) return index_;
    ++looks_;
    // What is known is loaded while the tree is looked at: each takes about as long as the other.
    auto loading = entries_ ? std::future<Entries>() : std::async([this] { return load(); });
    Tree tree(options_.root);
    Listing listing = last_look_ ? last_look_->list(tree) : list_files(options_.root, excluded_, tree);
    const Looks looks = look_at(tree, options_.root, listing.files);
    if (loading.valid()) entries_ = loading.get();
    Refreshed next = refreshed(tree, listing.files, looks, *entries_, now, options_.symbols, progress);
    tell(next.failures);
    save(changes_between(*entries_, next.entries));
    entries_ = std::move(next.entries);
    if (!index_ || !has_files_of(*index_, *entries_)) index_ = index_of(*entries_);
    const std::scoped_lock skipped_lock(skipping_);
    skipped_ = std::move(listing.skipped);
    lacks_tool_ = next.lacks_tool;
    if (last_look_ && next.is_complete) last_look_->set_looked(now, std::move(listing), *entries_);
    return index_;
  }

  std::size_t looks() const { return looks_; }

  std::vector<std::string> skipped() const {
    const std::scoped_lock lock(skipping_);
    return skipped_;
  }

 private:
  // Each once: a file that may not be read is met by every refresh.
  void tell(const std::vector<utils::IoError>& failures) {
    for (const utils::IoError& failure : failures)
      if (told_.insert(failure.what()).second) logger.warning("%s", {failure.what()});
  }

  // Whether the symbol tool, which was missing at the last look, is there now; notes that it is not.
  bool has_tool_come() const {
    if (!lacks_tool_) return false;
    const SymbolTool tool = find_symbol_tool();
    if (tool.arguments.empty()) utils::degraded("symbols", tool.problem);
    return !tool.arguments.empty();
  }

  Entries load() const {
    Entries entries;
    if (options_.records == nullptr) return entries;
    options_.records->load([&](std::string_view path, std::string_view text) {
      auto entry = read_record(path, text);
      entries.push_back(entry ? *std::move(entry) : unknown_entry(path));
    });
    // They come in order, but for those that were stored since the first time.
    const auto later = std::is_sorted_until(entries.begin(), entries.end(), is_before);
    std::sort(later, entries.end(), is_before);
    std::inplace_merge(entries.begin(), later, entries.end(), is_before);
    return entries;
  }

  // Before anything of the refresh is kept: when it fails, the next refresh has the same changes to write.
  void save(const Changes& changes) {
    if (options_.records != nullptr && !changes.empty()) options_.records->update(changes);
  }

  Options options_;
  Exclusions excluded_;
  std::mutex refreshing_;           // guards what follows
  std::optional<Entries> entries_;  // none before the records are loaded
  std::shared_ptr<const SourceIndex> index_;
  std::optional<LastLook> last_look_;
  bool lacks_tool_ = false;
  std::set<std::string> told_;
  std::atomic<std::size_t> looks_ = 0;
  mutable std::mutex skipping_;  // guards skipped_, which is read while a refresh runs
  std::vector<std::string> skipped_;
};

Indexer::Indexer(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
Indexer::~Indexer() = default;

std::shared_ptr<const SourceIndex> Indexer::refresh(const utils::Progress& progress) {
  return impl_->refresh(progress);
}

std::vector<std::string> Indexer::skipped() const { return impl_->skipped(); }

std::size_t Indexer::looks() const { return impl_->looks(); }

std::optional<std::string> read_source(const std::filesystem::path& root, const std::string& path) {
  const auto reading = Tree(root).read(path);
  if (!reading || reading->kind != FileKind::text) return std::nullopt;
  return utils::valid_utf8(reading->content);
}

}  // namespace ossilar::source
