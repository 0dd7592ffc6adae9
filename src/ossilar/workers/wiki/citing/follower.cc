// A file that is gone was renamed to one that has its content, or else to the most similar one that has at
// least half of it, as git has it. Only a file that was not there before can be the new name: which files
// were there, the commit of the citation tells. Where that commit is not known, as outside git, only files of
// the same name, or with the cited symbol, are considered.
#include "ossilar/workers/wiki/citing/follower.h"

#include <algorithm>
#include <utility>

#include "ossilar/utils/text.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;

// Texts are kept between calls, as many citations are of the same files; beyond this they are dropped.
constexpr std::size_t kMostBytes = std::size_t{64} << 20U;

// git's threshold for a rename.
constexpr double kLeastSimilarity = 0.5;
// Files that are compared with one that is gone. git has such a limit too (diff.renameLimit, 1000).
constexpr std::size_t kMostCandidates = 1000;
// git divides lines that are longer.
constexpr std::size_t kLongestChunk = 64;
// What a block must be to be found in another file by its hash alone: no two files have it by chance.
constexpr std::int64_t kTellingLines = 3;
constexpr std::size_t kTellingLetters = 40;

std::string_view name_of(std::string_view path) { return path.substr(path.rfind('/') + 1); }

bool is_text(const SourceFile& file) { return file.kind == source::FileKind::text; }

std::map<std::string_view, std::size_t> bytes_by_chunk(const LineText& text) {
  std::map<std::string_view, std::size_t> bytes;
  for (std::int64_t number = 1; number <= text.size(); ++number) {
    std::string_view line = text.block({number, number});
    while (!line.empty()) {
      const std::string_view chunk = line.substr(0, kLongestChunk);
      bytes[chunk] += chunk.size();
      line.remove_prefix(chunk.size());
    }
  }
  return bytes;
}

HasSymbol symbols_in(const SourceFile& file) {
  return [&file](const std::string& name) {
    const std::vector<source::Symbol> symbols = file.symbols.all();
    return std::any_of(symbols.begin(), symbols.end(),
                       [&](const source::Symbol& symbol) { return full_name(symbol) == name; });
  };
}

}  // namespace

double similarity(const LineText& a, const LineText& b) {
  const std::size_t larger = std::max(a.all().size(), b.all().size());
  if (larger == 0) return 1;
  const auto of_a = bytes_by_chunk(a);
  const auto of_b = bytes_by_chunk(b);
  std::size_t common = 0;
  for (const auto& [chunk, bytes] : of_a) {
    const auto found = of_b.find(chunk);
    if (found != of_b.end()) common += std::min(bytes, found->second);
  }
  return static_cast<double>(common) / static_cast<double>(larger);
}

// Pointers to what is in here stay valid until clear_when_full(), which look() alone calls, at its start.
struct CitationFollower::Texts {
  std::map<std::string, std::unique_ptr<LineText>> past;  // by the version's hash; null for one not to be had
  std::map<std::string, std::unique_ptr<LineText>> now;   // by path
  std::map<std::pair<std::string, std::string>, std::unique_ptr<Versions>> versions;
  std::size_t bytes = 0;

  void clear_when_full() {
    if (bytes > kMostBytes) *this = {};
  }
};

CitationFollower::CitationFollower(CitedSources sources)
    : sources_(std::move(sources)), texts_(std::make_unique<Texts>()) {}

CitationFollower::~CitationFollower() = default;

const LineText* CitationFollower::past(const FileVersion& version) {
  if (version.hash.empty()) return nullptr;
  auto [text, is_new] = texts_->past.try_emplace(version.hash);
  if (is_new) {
    if (const auto found = sources_.past(version)) {
      text->second = std::make_unique<LineText>(*found);
      texts_->bytes += found->size();
    }
  }
  return text->second.get();
}

const LineText* CitationFollower::now(const SourceFile& file) {
  auto [text, is_new] = texts_->now.try_emplace(file.path);
  if (is_new) {
    if (const auto found = sources_.read(file.path)) {
      text->second = std::make_unique<LineText>(*found);
      texts_->bytes += found->size();
    }
  }
  return text->second.get();
}

const Versions* CitationFollower::versions(const SourceFile& file, const FileVersion& version) {
  const LineText* before = past(version);
  const LineText* after = now(file);
  if (before == nullptr || after == nullptr) return nullptr;
  auto& pair = texts_->versions[{version.hash, file.path}];
  if (!pair) {
    pair = std::make_unique<Versions>(*before, *after);
    texts_->bytes += before->all().size() + after->all().size();  // the counts of their lines
  }
  return pair.get();
}

Looked CitationFollower::look(const Citation& cited, const Fingerprint& print) {
  texts_->clear_when_full();
  const SourceFile* file = sources_.index.find(cited.path);
  const bool is_there = file != nullptr && is_text(*file);
  if (!print.is_known()) {
    const bool has_lines = is_there && cited.last <= file->lines;
    return {has_lines ? CitationState::unknown : CitationState::gone, std::nullopt, false};
  }
  if (!is_there) return look_elsewhere(cited, print);
  if (version_hash(*file) == print.file.hash) return {CitationState::same, cited, false};
  return look_in(*file, cited, print);
}

// The old text is used only if it holds what was cited: it may be that of a file that was being edited.
Looked CitationFollower::look_in(const SourceFile& file, const Citation& cited, const Fingerprint& print) {
  const LineRange range{cited.first, cited.last};
  const LineText* after = now(file);
  if (after == nullptr) return {CitationState::gone, std::nullopt, false};
  const LineText* before = past(print.file);
  const bool has_text =
      before != nullptr && before->has(range) && short_hash(before->block(range)) == print.text;
  const Followed followed = has_text
                                ? versions(file, print.file)->follow(range, print.symbol, symbols_in(file))
                                : follow_without_text(print, range, *after, symbols_in(file));
  Looked looked{followed.state, std::nullopt, followed.only_formatting};
  if (followed.now) looked.now = Citation{file.path, followed.now->first, followed.now->last};
  if (looked.state == CitationState::same && file.path != cited.path) looked.state = CitationState::moved;
  return looked;
}

// With the old text, or its whole content somewhere, the new name of the file is found first. Without either,
// a block that is telling by itself is looked for in the files that may be it.
Looked CitationFollower::look_elsewhere(const Citation& cited, const Fingerprint& print) {
  Looked gone{CitationState::gone, std::nullopt, false};
  if (const auto path = renamed_to(cited.path, print.file))
    return look_in(*sources_.index.find(*path), cited, print);
  if (past(print.file) != nullptr || cited.last - cited.first + 1 < kTellingLines) return gone;
  Looked found{CitationState::gone, std::nullopt, false};
  for (const SourceFile* file : likely_names(cited.path, print.symbol)) {
    const Looked looked = look_in(*file, cited, print);
    if (looked.state != CitationState::moved) continue;
    const std::string_view block = now(*file)->block({looked.now->first, looked.now->last});
    if (letters_in(block) < kTellingLetters) continue;
    if (found.state == CitationState::moved) return gone;  // two files have it: neither is the new name
    found = looked;
  }
  return found;
}

std::optional<std::string> CitationFollower::cited_text(const Citation& cited, const Fingerprint& print) {
  const LineRange range{cited.first, cited.last};
  const LineText* before = past(print.file);
  if (before == nullptr || !before->has(range)) return std::nullopt;
  const std::string_view block = before->block(range);
  return short_hash(block) == print.text ? std::optional(std::string(block)) : std::nullopt;
}

std::optional<std::string> CitationFollower::past_text(const FileVersion& version) {
  const LineText* text = past(version);
  return text == nullptr ? std::nullopt : std::optional(std::string(text->all()));
}

std::optional<CitationFollower::LineCounts> CitationFollower::changed_lines(const std::string& path,
                                                                            const FileVersion& version) {
  const SourceFile* file = sources_.index.find(path);
  if (file == nullptr || !is_text(*file)) return std::nullopt;
  const Versions* pair = versions(*file, version);
  if (pair == nullptr) return std::nullopt;
  return LineCounts{pair->map().removed(), pair->map().added()};
}

std::optional<std::string> CitationFollower::renamed_to(const std::string& path, const FileVersion& version) {
  auto [rename, is_new] = renames_.try_emplace(path + '\n' + version.hash + version.commit);
  if (is_new) rename->second = find_renamed(path, version);
  return rename->second;
}

// Whether the path was a file of its own when the citation was written. Not known counts as no.
bool CitationFollower::was_there(const std::string& path, const FileVersion& version) const {
  const source::CommitFiles* files = sources_.files_at(version.commit);
  return files != nullptr && files->count(path) > 0;
}

std::vector<const SourceFile*> CitationFollower::same_content(const FileVersion& version) {
  if (!by_content_) {
    by_content_.emplace();
    for (const auto& file : sources_.index.files())
      if (is_text(*file)) (*by_content_)[version_hash(*file)].push_back(file.get());
  }
  const auto found = by_content_->find(version.hash);
  return found == by_content_->end() ? std::vector<const SourceFile*>() : found->second;
}

// Files of the same name, and files with the symbol. The text of a file's symbols is searched before it is
// decoded, as this looks at every file.
std::vector<const SourceFile*> CitationFollower::likely_names(const std::string& path,
                                                              const std::string& symbol) const {
  const std::string bare = symbol.substr(symbol.rfind(':') + 1);
  std::vector<const SourceFile*> files;
  for (const auto& file : sources_.index.files()) {
    if (!is_text(*file) || files.size() == kMostCandidates) continue;
    const bool is_named = name_of(file->path) == name_of(path);
    const bool may_have = !symbol.empty() && file->symbols.text().find(bare) != std::string::npos;
    if (is_named || (may_have && symbols_in(*file)(symbol))) files.push_back(file.get());
  }
  return files;
}

std::optional<std::string> CitationFollower::find_renamed(const std::string& path,
                                                          const FileVersion& version) {
  std::vector<std::string> equal;
  for (const SourceFile* file : same_content(version))
    if (!was_there(file->path, version)) equal.push_back(file->path);
  if (equal.size() > 1)
    std::erase_if(equal, [&](const std::string& other) { return name_of(other) != name_of(path); });
  if (equal.size() == 1) return equal.front();
  const LineText* before = past(version);
  return before == nullptr ? std::nullopt : most_similar(*before, possible_names(path, version));
}

std::vector<const SourceFile*> CitationFollower::possible_names(const std::string& path,
                                                                const FileVersion& version) const {
  if (sources_.files_at(version.commit) == nullptr) return likely_names(path, "");
  std::vector<const SourceFile*> files;
  for (const auto& file : sources_.index.files()) {
    if (is_text(*file) && files.size() < kMostCandidates && !was_there(file->path, version))
      files.push_back(file.get());
  }
  return files;
}

// Sizes first: texts of which one is less than half of the other cannot be similar enough, and need no
// reading.
std::optional<std::string> CitationFollower::most_similar(const LineText& before,
                                                          const std::vector<const SourceFile*>& files) {
  const auto size = static_cast<double>(before.all().size());
  double best = kLeastSimilarity;
  std::optional<std::string> found;
  for (const SourceFile* file : files) {
    const auto other = static_cast<double>(file->size);
    if (std::min(size, other) < kLeastSimilarity * std::max(size, other)) continue;
    const LineText* text = now(*file);
    const double similar = text == nullptr ? 0 : similarity(before, *text);
    if (similar > best || (similar == best && !found)) {
      best = similar;
      found = file->path;
    }
  }
  return found;
}

}  // namespace ossilar::workers::wiki
