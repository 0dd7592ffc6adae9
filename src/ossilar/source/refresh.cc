// Three passes. A survey keeps the entry of each file that is as it was, and reserves a place for each that
// must be read. Then these are read, while the symbol tool works on the texts that were read already. Last
// its answers are put in. The places keep the entries in the order of their paths, in whatever order files
// and symbols come.
//
// A file is as it was under the rule that git has for its index: the whole stamp is the same, and it was old
// when the file was read. A young file, or one whose stamp changed, is read again. If its content has the
// same hash, it keeps its SourceFile object, symbols included, so unchanged files are the same pointers in
// every index.
#include "ossilar/source/refresh.h"

#include <algorithm>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "ossilar/source/ctags.h"
#include "ossilar/source/imports.h"
#include "ossilar/source/language.h"
#include "ossilar/utils/best_effort.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"

namespace ossilar::source {
namespace {

// Nanoseconds: the coarsest time stamps of a file system in use (FAT). A file whose times are younger than
// this when it is read can be written again without a change of its times; git calls such entries racily
// clean.
constexpr std::int64_t kCoarsestTick = 2'000'000'000;
// Files between two calls of the progress function: often enough to watch, too seldom to cost.
constexpr std::size_t kProgressStep = 100;

bool is_old_enough(const Stamp& stamp, std::int64_t now) {
  return std::max(stamp.modified, stamp.changed) <= now - kCoarsestTick;
}

// Whether the tool has not answered for a file that it could have symbols for.
bool needs_symbols(const Entry& entry) {
  const SourceFile& file = *entry.file;
  return !entry.has_symbols && file.kind == FileKind::text && file.size > 0 &&
         file.size <= kLargestForSymbols && !symbol_ending(file.language).empty();
}

// The known object when kind and size are the same, so that an index of the same files has the same pointers.
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
  // The size of a folder or a device is the file system's own affair, and would change an index for nothing.
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

// A content with the hash that is known keeps its file and its symbols, and only the stamp is new.
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

// The symbol tool of one refresh. It is looked for at most once, and only when there is something to ask it.
class ToolOfRefresh {
 public:
  explicit ToolOfRefresh(bool is_wanted) : is_wanted_(is_wanted) {}
  // The tool is likely to be needed: starts to look for it on another thread, so that get() waits less.
  void expect() {
    if (is_wanted_ && !tool_ && !finding_.valid()) finding_ = std::async(find_symbol_tool);
  }
  // Null when no symbols are wanted, or the tool is missing. Waits until it is found.
  const SymbolTool* get() {
    if (!is_wanted_) return nullptr;
    expect();
    if (finding_.valid()) tool_ = finding_.get();
    if (!tool_->problem.empty()) problem_ = tool_->problem;
    return tool_->arguments.empty() ? nullptr : &*tool_;
  }
  void fail(std::string problem) { problem_ = std::move(problem); }
  const std::string& problem() const { return problem_; }
  // Whether it was looked for and is not there.
  bool is_missing() const { return tool_ && tool_->arguments.empty(); }

 private:
  bool is_wanted_;
  std::future<SymbolTool> finding_;
  std::optional<SymbolTool> tool_;
  std::string problem_;
};

// One refresh, used by one thread. The tree and the known entries must outlive it.
class Refresh {
 public:
  Refresh(Tree& tree, const Entries& known, std::int64_t now, bool symbols)
      : tree_(tree), known_(known), next_(known.begin()), now_(now), tool_(symbols) {}

  // As refreshed(). Called once.
  Entries run(const std::vector<Listed>& files, const Looks& looks, const utils::Progress& progress) {
    entries_.reserve(files.size());
    for (std::size_t i = 0; i < files.size(); ++i) survey(files[i], looks[i]);
    read_all(progress);
    // Here and not where it is found out, as the scope that collects it belongs to this thread.
    if (!tool_.problem().empty()) utils::degraded("symbols", tool_.problem());
    // Reserved places whose file went away before it was read.
    const auto is_gone = [](const Entry& entry) { return entry.file == nullptr; };
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(), is_gone), entries_.end());
    return std::move(entries_);
  }

  // A missing tool leaves nothing to do: the indexer watches for it without a scan. A tool that failed must
  // be asked again, for which the next refresh has to scan.
  bool is_complete() const { return tool_.problem().empty() || tool_.is_missing(); }
  bool lacks_tool() const { return tool_.is_missing(); }

  // The files that could not be read, with the system's reasons.
  const std::vector<utils::IoError>& failures() const { return failures_; }

 private:
  // A file to be read, and the place that is reserved for its entry.
  struct ToRead {
    std::string path;
    const Entry* known;
    std::size_t place;
  };

  void survey(const Listed& listed, const std::optional<Look>& look) {
    // A folder where git tracks a file: the file is gone.
    if (!look || (look->is_directory && !listed.is_submodule)) return;
    note_failure(listed.path, look->error);
    const Entry* known = next_known(listed.path);
    if (look->is_directory || look->kind != FileKind::text) {
      const FileKind kind = look->is_directory ? FileKind::submodule : look->kind;
      entries_.push_back(unread_entry(listed.path, kind, look->stamp, known));
    } else if (known != nullptr && is_up_to_date(*known, *look)) {
      entries_.push_back(*known);
    } else {
      // The tool is expected only for a file that is new or has another size. One that is read only because
      // it is young mostly has its symbols, and each save would start the tool for nothing.
      const bool is_other = known == nullptr || known->stamp.size != look->stamp.size;
      if (is_other && !symbol_ending(language_of(listed.path, {})).empty()) tool_.expect();
      to_read_.push_back({listed.path, known, entries_.size()});
      entries_.emplace_back();
    }
  }

  // The known entry of `path`, or null. Paths must be asked for in order: each search goes on where the last
  // ended.
  const Entry* next_known(const std::string& path) {
    while (next_ != known_.end() && path_of(*next_) < path) ++next_;
    return next_ != known_.end() && path_of(*next_) == path ? &*next_ : nullptr;
  }

  bool is_up_to_date(const Entry& known, const Look& look) {
    if (!known.is_settled || known.stamp != look.stamp) return false;
    // An entry from before the tool was there is read again, now that the tool is.
    return !needs_symbols(known) || tool_.get() == nullptr;
  }

  void read_all(const utils::Progress& progress) {
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

  // The queue is made at the first text, so that a refresh without new texts starts no process.
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
      if (symbols.empty()) continue;  // the file is as it is
      // Files are never changed, as an index may hold them already: a copy gets the symbols.
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
  Entries::const_iterator next_;  // the first known entry that the survey has not passed
  std::int64_t now_;
  ToolOfRefresh tool_;
  std::vector<ToRead> to_read_;
  std::vector<utils::IoError> failures_;
  Entries entries_;  // a reserved place has no file until it is read
};

}  // namespace

Looks look_at(Tree& tree, const std::filesystem::path& root, const std::vector<Listed>& files) {
  // Files from which on a second thread helps. It trades the start of a thread and a second walk through the
  // folders against half the wait.
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
    Tree own(root);  // a tree serves one thread
    look(own, middle, files.size());
  });
  // When this throws, the end of `rest` waits for its thread, which uses the locals here.
  look(tree, 0, middle);
  rest.get();
  return looks;
}

Refreshed refreshed(Tree& tree, const std::vector<Listed>& files, const Looks& looks, const Entries& known,
                    std::int64_t now, bool symbols, const utils::Progress& progress) {
  Refresh refresh(tree, known, now, symbols);
  Refreshed done;
  done.entries = refresh.run(files, looks, progress);
  done.is_complete = refresh.is_complete();
  done.lacks_tool = refresh.lacks_tool();
  done.failures = refresh.failures();
  return done;
}

}  // namespace ossilar::source
