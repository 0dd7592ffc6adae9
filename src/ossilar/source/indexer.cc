#include "ossilar/source/indexer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <utility>

#include "ossilar/source/ctags.h"
#include "ossilar/source/file_reader.h"
#include "ossilar/source/git.h"
#include "ossilar/source/imports.h"
#include "ossilar/source/language.h"
#include "ossilar/source/listing.h"
#include "ossilar/source/record.h"
#include "ossilar/source/tree_watch.h"
#include "ossilar/utils/best_effort.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

const utils::Logger logger("ossilar.source.indexer");

// The coarsest times that file systems in use keep (FAT: two seconds). A file whose times are younger than
// this when it is read can be written again without a change of its times, as git's racily clean entries can.
constexpr std::int64_t kCoarsestTick = 2'000'000'000;
constexpr std::size_t kProgressStep = 100;

using Entries = std::vector<Entry>;  // in the order of their paths
using Changes = std::map<std::string, std::optional<std::string>>;

std::int64_t system_clock() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

bool is_old_enough(const Stamp& stamp, std::int64_t now) {
  return std::max(stamp.modified, stamp.changed) <= now - kCoarsestTick;
}

bool needs_symbols(const Entry& entry) {
  const SourceFile& file = *entry.file;
  return !entry.has_symbols && file.kind == FileKind::text && file.size > 0 &&
         file.size <= kLargestForSymbols && !symbol_ending(file.language).empty();
}

// The file as it was known when it is still the same, so that an index of the same files is seen to be the
// same.
std::shared_ptr<const SourceFile> unread_file(const std::string& path, FileKind kind, std::uint64_t size,
                                              const Entry* known) {
  if (known != nullptr && known->file && known->file->kind == kind && known->file->size == size)
    return known->file;
  SourceFile file;
  file.path = path;
  file.kind = kind;
  file.size = size;
  file.language = language_of(path, {});
  return std::make_shared<const SourceFile>(std::move(file));
}

Entry unread_entry(const std::string& path, FileKind kind, const Stamp& stamp, const Entry* known) {
  // The size of a folder or a device comes and goes with its file system.
  const bool has_size = kind == FileKind::large || kind == FileKind::symlink;
  return {.stamp = {},
          .is_settled = kind != FileKind::unreadable,
          .has_symbols = true,
          .file = unread_file(path, kind, has_size ? stamp.size : 0, known)};
}

std::shared_ptr<const SourceFile> read_file(const std::string& path, const Reading& reading,
                                            const ContentHash& hash) {
  SourceFile file;
  file.path = path;
  file.kind = reading.kind;
  file.size = reading.content.size();
  file.sha256 = hash;
  const bool is_text = reading.kind == FileKind::text;
  file.language = language_of(path, is_text ? std::string_view(reading.content) : std::string_view());
  if (is_text) {
    file.lines = static_cast<std::int64_t>(utils::count_lines(reading.content));
    file.imports = ImportList(imports_of(file.language, reading.content));
  }
  return std::make_shared<const SourceFile>(std::move(file));
}

Entry read_entry(const std::string& path, const Reading& reading, std::int64_t now, const Entry* known) {
  const ContentHash hash(utils::sha256_hex(reading.content));
  Entry entry{.stamp = reading.stamp,
              .is_settled = reading.is_steady && is_old_enough(reading.stamp, now),
              .has_symbols = false,
              .file = nullptr};
  if (known != nullptr && known->file && known->file->sha256 == hash) {
    entry.has_symbols = known->has_symbols;
    entry.file = known->file;
  } else {
    entry.file = read_file(path, reading, hash);
  }
  return entry;
}

// Asks at most once a refresh, and only when there is something to ask it for.
class ToolOfRefresh {
 public:
  explicit ToolOfRefresh(bool is_wanted) : is_wanted_(is_wanted) {}
  // It is likely to be needed: looks for it beside what is done until then.
  void expect() {
    if (is_wanted_ && !tool_ && !finding_.valid()) finding_ = std::async(find_symbol_tool);
  }
  const SymbolTool* get() {
    if (!is_wanted_) return nullptr;
    expect();
    if (finding_.valid()) tool_ = finding_.get();
    if (!tool_->problem.empty()) problem_ = tool_->problem;
    return tool_->arguments.empty() ? nullptr : &*tool_;
  }
  void fail(std::string problem) { problem_ = std::move(problem); }
  const std::string& problem() const { return problem_; }
  // Whether it was asked for and is not there.
  bool is_missing() const { return tool_ && tool_->arguments.empty(); }

 private:
  bool is_wanted_;
  std::future<SymbolTool> finding_;
  std::optional<SymbolTool> tool_;
  std::string problem_;
};

const std::string& path_of(const Entry& entry) { return entry.file->path; }

bool is_before(const Entry& a, const Entry& b) { return path_of(a) < path_of(b); }

// Stands for a record that is damaged, so that it is replaced or removed.
Entry unknown_entry(std::string_view path) {
  SourceFile file;
  file.path = path;
  return {.stamp = {}, .file = std::make_shared<const SourceFile>(std::move(file))};
}

using Looks = std::vector<std::optional<Look>>;

// What the tree at `root` holds of each of `files`. Where they are many, two threads look at a half each.
Looks look_at(Tree& tree, const std::filesystem::path& root, const std::vector<Listed>& files) {
  constexpr std::size_t kMany = 2000;
  Looks looks(files.size());
  const auto look = [&](Tree& in, std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) looks[i] = in.look(files[i].path);
  };
  if (files.size() < kMany) {
    look(tree, 0, files.size());
    return looks;
  }
  const std::size_t middle = files.size() / 2;
  auto rest = std::async([&] {
    Tree own(root);
    look(own, middle, files.size());
  });
  look(tree, 0, middle);
  rest.get();
  return looks;
}

// What one refresh makes out of the entries of the one before.
class Refresh {
 public:
  Refresh(Tree& tree, const Entries& known, std::int64_t now, bool symbols)
      : tree_(tree), known_(known), next_(known.begin()), now_(now), tool_(symbols) {}

  // `files` are in order, and `looks` are what was seen of them.
  Entries run(const std::vector<Listed>& files, const Looks& looks, const Progress& progress) {
    entries_.reserve(files.size());
    for (std::size_t i = 0; i < files.size(); ++i) survey(files[i], looks[i]);
    read_all(progress);
    if (!tool_.problem().empty()) utils::degraded("symbols", tool_.problem());
    const auto is_gone = [](const Entry& entry) { return entry.file == nullptr; };
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(), is_gone), entries_.end());
    return std::move(entries_);
  }

  // Whether nothing was left for the next refresh that it has to look at files for.
  bool is_complete() const { return tool_.problem().empty() || tool_.is_missing(); }
  bool lacks_tool() const { return tool_.is_missing(); }

  // The files that could not be read, with the system's reasons.
  const std::vector<utils::IoError>& failures() const { return failures_; }

 private:
  // What is to be read gets its place among the entries.
  struct ToRead {
    std::string path;
    const Entry* known;
    std::size_t place;
  };

  void survey(const Listed& listed, const std::optional<Look>& look) {
    if (!look || (look->is_directory && !listed.is_submodule)) return;
    note_failure(listed.path, look->error);
    const Entry* known = next_known(listed.path);
    if (look->is_directory || look->kind != FileKind::text) {
      const FileKind kind = look->is_directory ? FileKind::submodule : look->kind;
      entries_.push_back(unread_entry(listed.path, kind, look->stamp, known));
    } else if (known != nullptr && is_up_to_date(*known, *look)) {
      entries_.push_back(*known);
    } else {
      // One that is only young mostly is what it was.
      const bool is_other = known == nullptr || known->stamp.size != look->stamp.size;
      if (is_other && !symbol_ending(language_of(listed.path, {})).empty()) tool_.expect();
      to_read_.push_back({listed.path, known, entries_.size()});
      entries_.emplace_back();
    }
  }

  // Paths are asked for in order.
  const Entry* next_known(const std::string& path) {
    while (next_ != known_.end() && path_of(*next_) < path) ++next_;
    return next_ != known_.end() && path_of(*next_) == path ? &*next_ : nullptr;
  }

  bool is_up_to_date(const Entry& known, const Look& look) {
    if (!known.is_settled || known.stamp != look.stamp) return false;
    return !needs_symbols(known) || tool_.get() == nullptr;
  }

  void read_all(const Progress& progress) {
    std::optional<SymbolQueue> queue;
    for (std::size_t i = 0; i < to_read_.size(); ++i) {
      if (progress && i % kProgressStep == 0) progress(i, to_read_.size());
      read(i, queue);
    }
    if (queue) take_symbols(*queue);
    if (progress && !to_read_.empty()) progress(to_read_.size(), to_read_.size());
  }

  void read(std::size_t id, std::optional<SymbolQueue>& queue) {
    const auto& [path, known, place] = to_read_[id];
    const auto reading = tree_.read(path);
    if (!reading) return;  // it went away since it was listed
    note_failure(path, reading->error);
    Entry& entry = entries_[place];
    if (reading->kind != FileKind::text && reading->kind != FileKind::binary) {
      entry = unread_entry(path, reading->kind, reading->stamp, known);
      return;
    }
    entry = read_entry(path, *reading, now_, known);
    if (needs_symbols(entry)) ask(id, entry, reading->content, queue);
  }

  void ask(std::size_t id, const Entry& entry, const std::string& content,
           std::optional<SymbolQueue>& queue) {
    const SymbolTool* tool = tool_.get();
    if (tool == nullptr) return;
    if (!queue) queue.emplace(*tool);
    queue->add(id, entry.file->path, entry.file->language, content);
  }

  void take_symbols(SymbolQueue& queue) {
    for (auto& [id, symbols] : queue.finish()) {
      Entry& entry = entries_[to_read_[id].place];
      entry.has_symbols = true;
      if (symbols.empty()) continue;
      SourceFile file = *entry.file;
      file.symbols = SymbolList(symbols);
      entry.file = std::make_shared<const SourceFile>(std::move(file));
    }
    if (!queue.problem().empty()) tool_.fail(queue.problem());
  }

  void note_failure(const std::string& path, int error) {
    if (error != 0) failures_.emplace_back("cannot read " + path, error);
  }

  Tree& tree_;
  const Entries& known_;
  Entries::const_iterator next_;  // the first that no survey has passed
  std::int64_t now_;
  ToolOfRefresh tool_;
  std::vector<ToRead> to_read_;
  std::vector<utils::IoError> failures_;
  Entries entries_;  // without a file where one is to be read, or went away
};

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

std::string_view folder_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return path.substr(0, slash == path.npos ? 0 : slash);
}

// The folders whose watches tell of every change to these files, of their coming and going too.
std::set<std::string> folders_of(const Listing& listing) {
  std::set<std::string> folders(listing.walked.begin(), listing.walked.end());
  folders.insert("");
  std::string_view last;
  for (const Listed& file : listing.files) {
    const std::string_view in = folder_of(file.path);
    if (std::exchange(last, in) == in) continue;
    std::string folder = file.path;
    for (std::size_t slash = folder.rfind('/'); slash != folder.npos; slash = folder.rfind('/')) {
      folder.resize(slash);
      if (!folders.insert(folder).second) break;  // and so those above it
    }
  }
  return folders;
}

// Whether `path` is that of one of the files, which are in order, or of a folder that one is in.
template <class File, class PathOf>
bool leads_to(const std::vector<File>& files, PathOf path_of_file, const std::string& path) {
  const auto first_from = [&](const std::string& from) {
    return std::lower_bound(files.begin(), files.end(), from,
                            [&](const File& file, const std::string& at) { return path_of_file(file) < at; });
  };
  const auto found = first_from(path);
  if (found != files.end() && path_of_file(*found) == path) return true;
  const std::string below = path + "/";
  const auto first = first_from(below);
  return first != files.end() && path_of_file(*first).starts_with(below);
}

constexpr std::int64_t kLongestHearsay = 60'000'000'000;  // nanoseconds

// What a watch tells about the last look at a tree.
class Hearing {
 public:
  Hearing(const std::filesystem::path& root, const Exclusions& excluded)
      : root_(root), excluded_(excluded), watch_(root) {}

  // Whether what was seen at the last look, which gave these entries, still is so.
  bool is_unchanged(std::int64_t now, const Entries& entries) {
    const bool quiet = watch_.is_quiet([&](const std::string& path) { return concerns(path, entries); });
    const bool recent = now >= looked_at_ && now - looked_at_ < kLongestHearsay;
    // What happens to a folder above one that is watched is not heard of.
    complete_ = complete_ && quiet && recent && utils::stamp_of(root_).is_same_file(root_stamp_) &&
                utils::stamp_of(index_file_) == index_stamp_;
    return complete_;
  }

  // Lists the files, so that what happens to them from now on is heard of. What is listed was watched before,
  // but for folders outside git: what came into one between its listing and its watching is in the next
  // listing.
  Listing list(Tree& tree) {
    complete_ = false;
    root_stamp_ = utils::stamp_of(root_);
    watch_.add({""});
    for (;;) {
      index_file_ = find_index_file();
      if (!index_file_.empty()) watch_.add_beside(index_file_.parent_path().string());
      index_stamp_ = utils::stamp_of(index_file_);
      Listing listing = list_files(root_, excluded_, tree);
      const bool is_new = watch_.add(folders_of(listing));
      if (listing.index_file == index_file_ && !(is_new && index_file_.empty())) return listing;
    }
  }

  // The look that list() began is done.
  void set_looked(std::int64_t now, Listing listing, const Entries& entries) {
    looked_at_ = now;
    absent_.clear();
    auto entry = entries.begin();
    for (Listed& file : listing.files) {
      while (entry != entries.end() && path_of(*entry) < file.path) ++entry;
      const bool has_entry = entry != entries.end() && path_of(*entry) == file.path;
      if (!has_entry) absent_.push_back(std::move(file.path));
    }
    complete_ = watch_.is_trusted();
  }

 private:
  std::filesystem::path find_index_file() const {
    const auto repository = open_repository(root_);
    return repository ? index_file_of(repository.get()) : std::filesystem::path();
  }

  bool concerns(const std::string& path, const Entries& entries) const {
    if (index_file_.empty()) return !excluded_.covers(path);
    // A second index within a tick of the file system's clock may have the stamp of the first.
    if (path == ".git" || path == index_file_.native()) return true;
    return !excluded_.covers(path) &&
           (leads_to(entries, path_of, path) || leads_to(absent_, std::identity(), path));
  }

  const std::filesystem::path& root_;
  const Exclusions& excluded_;
  TreeWatch watch_;
  utils::FileStamp root_stamp_;
  std::filesystem::path index_file_;  // empty outside git
  utils::FileStamp index_stamp_;
  std::vector<std::string> absent_;  // listed at the last look without an entry, in order
  std::int64_t looked_at_ = 0;
  bool complete_ = false;  // the last look came to its end, and nothing happened since
};

}  // namespace

class Indexer::Impl {
 public:
  explicit Impl(Options options) : options_(std::move(options)), excluded_(options_.excluded) {
    if (!options_.clock) options_.clock = system_clock;
    if (options_.watch) hearing_.emplace(options_.root, excluded_);
  }

  std::shared_ptr<const SourceIndex> refresh(const Progress& progress) {
    const std::scoped_lock lock(refreshing_);
    const std::int64_t now = options_.clock();
    if (entries_ && hearing_ && hearing_->is_unchanged(now, *entries_) && !has_tool_come()) return index_;
    ++looks_;
    // What is known is loaded while the tree is looked at: each takes about as long as the other.
    auto loading = entries_ ? std::future<Entries>() : std::async([this] { return load(); });
    Tree tree(options_.root);
    Listing listing = hearing_ ? hearing_->list(tree) : list_files(options_.root, excluded_, tree);
    const Looks looks = look_at(tree, options_.root, listing.files);
    if (loading.valid()) entries_ = loading.get();
    Refresh refresh(tree, *entries_, now, options_.symbols);
    Entries entries = refresh.run(listing.files, looks, progress);
    tell(refresh.failures());
    save(changes_between(*entries_, entries));
    entries_ = std::move(entries);
    if (!index_ || !has_files_of(*index_, *entries_)) index_ = index_of(*entries_);
    const std::scoped_lock skipped_lock(skipping_);
    skipped_ = std::move(listing.skipped);
    lacks_tool_ = refresh.lacks_tool();
    if (hearing_ && refresh.is_complete()) hearing_->set_looked(now, std::move(listing), *entries_);
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
  std::optional<Hearing> hearing_;
  bool lacks_tool_ = false;
  std::set<std::string> told_;
  std::atomic<std::size_t> looks_ = 0;
  mutable std::mutex skipping_;  // guards skipped_, which is read while a refresh runs
  std::vector<std::string> skipped_;
};

Indexer::Indexer(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
Indexer::~Indexer() = default;

std::shared_ptr<const SourceIndex> Indexer::refresh(const Progress& progress) {
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
