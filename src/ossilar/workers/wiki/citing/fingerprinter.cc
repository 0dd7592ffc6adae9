// Each file is read and hashed once, however many citations it has. The version is that of the text read and
// not of the index, which may be older by now: text and hash must belong together.
#include "ossilar/workers/wiki/citing/fingerprinter.h"

#include <utility>

#include "ossilar/source/git/git_objects.h"

namespace ossilar::workers::wiki {
namespace {

// A page of 1 MiB may hold tens of thousands of citations, each of a file of 10 MiB. Usual pages need a
// few MiB.
constexpr std::size_t kMostLookedAt = std::size_t{1} << 30U;

}  // namespace

struct Fingerprinter::File {
  explicit File(std::string content) : bytes(std::move(content)), lines(bytes) {}

  std::string bytes;
  LineText lines;
  FileVersion version;
  std::vector<source::Symbol> symbols;
  bool is_taken = false;
};

Fingerprinter::Fingerprinter(const source::SourceIndex& index, ReadText read, std::string commit)
    : index_(index), read_(std::move(read)), commit_(std::move(commit)) {}

Fingerprinter::~Fingerprinter() = default;

const Fingerprinter::File* Fingerprinter::file(const std::string& path) {
  auto [file, is_new] = files_.try_emplace(path);
  const source::SourceFile* indexed = index_.find(path);
  if (is_new && indexed != nullptr) {
    if (auto content = read_(path)) {
      file->second = std::make_unique<File>(*std::move(content));
      file->second->version = {short_hash(file->second->bytes), source::blob_id(file->second->bytes),
                               commit_};
      file->second->symbols = indexed->symbols.all();
    }
  }
  return file->second.get();
}

bool Fingerprinter::is_evidence(const Citation& citation) {
  const File* found = file(citation.path);
  const LineRange range{citation.first, citation.last};
  return found == nullptr || !found->lines.has(range) || letters_in(found->lines.block(range)) > 0;
}

Fingerprint Fingerprinter::take(const Citation& citation) {
  const File* found = file(citation.path);
  const LineRange range{citation.first, citation.last};
  if (found == nullptr && index_.find(citation.path) != nullptr) unread_.insert(citation_label(citation));
  if (found == nullptr || !found->lines.has(range) || looked_at_ > kMostLookedAt) return {};
  looked_at_ += found->bytes.size() + found->lines.block(range).size();
  files_.at(citation.path)->is_taken = true;
  return fingerprint_of(found->lines, range, symbol_at(found->symbols, range), found->version);
}

std::map<std::string, std::string> Fingerprinter::texts() const {
  std::map<std::string, std::string> texts;
  for (const auto& [path, file] : files_)
    if (file && file->is_taken) texts[file->version.hash] = file->bytes;
  return texts;
}

}  // namespace ossilar::workers::wiki
