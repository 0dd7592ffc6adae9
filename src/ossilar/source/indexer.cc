// A refresh lists the files, looks at the metadata of each, and reads only those that the metadata does not
// prove unchanged; to hash every file each time would read the whole repository for each save. Listing, looks
// and the entries of the last refresh are all in the order of paths and are gone through side by side.
// (Searches in a map of all files were a quarter of a scan of a large tree.)
//
// The order keeps every failure harmless. What is known is replaced last: after the records are stored, so
// that a failed store leaves the same changes for the next refresh, and before the watch is told that the
// scan is done, so that a refresh that threw is always followed by a scan.
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

// Stands for a damaged record. No file has its empty stamp, so the file is read again and the record
// replaced; if the file is gone, the record is removed.
Entry unknown_entry(std::string_view path) {
  SourceFile file;
  file.path = path;
  return {.stamp = {}, .file = std::make_shared<const SourceFile>(std::move(file))};
}

// What the records need to become `after`. Both are in the order of their paths. Entries are compared by the
// object of their file: one that did not change is the same object (refresh.cc), and a comparison of its
// texts is spared.
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

// Whether an index of these entries would hold the very same objects. The index is kept then, and callers
// know from its pointer that nothing changed.
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
    // The tool comes last: it costs a process, and only while the tool was missing.
    if (entries_ && last_look_ && last_look_->is_unchanged(now, *entries_) && !has_tool_come()) return index_;
    ++looks_;
    // The records are loaded while the tree is looked at: each takes about as long as the other. A failure to
    // load is thrown by get() below; without entries_, the next refresh loads again.
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
  // Logs each failure once; an unreadable file fails on every refresh.
  void tell(const std::vector<utils::IoError>& failures) {
    for (const utils::IoError& failure : failures)
      if (told_.insert(failure.what()).second) logger.warning("%s", {failure.what()});
  }

  // Whether the symbol tool, missing at the last scan, is there now: no watch reports a new program in PATH.
  // Notes it when it is still missing, as each caller has a degraded scope of its own.
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
    // Those of the first refresh come in order, those stored later behind them: only these need sorting.
    const auto later = std::is_sorted_until(entries.begin(), entries.end(), is_before);
    std::sort(later, entries.end(), is_before);
    std::inplace_merge(entries.begin(), later, entries.end(), is_before);
    return entries;
  }

  // Called before anything of the refresh is kept: when it throws, the next refresh has the same changes to
  // write.
  void save(const Changes& changes) {
    if (options_.records != nullptr && !changes.empty()) options_.records->update(changes);
  }

  Options options_;
  Exclusions excluded_;
  std::mutex refreshing_;           // guards what follows
  std::optional<Entries> entries_;  // none before the records are loaded
  std::shared_ptr<const SourceIndex> index_;
  std::optional<LastLook> last_look_;  // none without Options::watch
  bool lacks_tool_ = false;
  std::set<std::string> told_;          // messages that were logged
  std::atomic<std::size_t> looks_ = 0;  // atomic, as looks() does not wait for a refresh
  mutable std::mutex skipping_;  // guards skipped_, so that skipped() does not wait for a refresh either
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
