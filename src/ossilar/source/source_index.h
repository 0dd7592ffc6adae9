// What is known about the files of a source repository. The indexer makes an index; the plan, the grounding
// and the citations of a wiki read it (workers/wiki).
//
// Thread-safety: all types here are immutable once made, and may be used from any threads. A refresh makes a
// new index, and shares with the old one the files that did not change.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::source {

// Bytes. Larger files are indexed by name only: they are data or generated, and a file is read whole into
// memory.
inline constexpr std::uint64_t kLargestFile = std::uint64_t{10} * 1024 * 1024;

enum class FileKind {
  text,
  binary,      // holds a NUL byte
  large,       // over kLargestFile
  symlink,     // never followed
  submodule,   // a repository of its own
  special,     // pipe, device, socket
  unreadable,  // the system refused to look at it or to read it
};

struct Symbol {
  std::string name;
  std::string kind;       // "function", "class", ... as the symbol tool names it
  std::string scope;      // what it is declared in, such as "ns::Class"; "" at file level
  std::int64_t line = 0;  // the first line of a file is 1
};

// A file's symbols in the order of their lines, kept as one text: as objects they would be most of the memory
// of an index.
class SymbolList {
 public:
  SymbolList() = default;
  explicit SymbolList(const std::vector<Symbol>& symbols);
  // `text` is what text() gave. Any other text gives the symbols that can be made of it.
  static SymbolList of_text(std::string text);

  // Decodes them anew at each call.
  std::vector<Symbol> all() const;
  // Their names alone, views of this list: quicker, for whoever looks at the symbols of many files.
  std::vector<std::string_view> names() const;
  // Whether a program may begin here: a symbol at file level is called `main`. Costs nothing, as a plan asks
  // it of every file.
  bool has_main() const { return has_main_; }
  // For records. UTF-8 if the symbols are.
  const std::string& text() const { return text_; }

 private:
  explicit SymbolList(std::string text);

  std::string text_;
  bool has_main_ = false;
};

// What a file imports, kept as one text for the same reason.
class ImportList {
 public:
  ImportList() = default;
  // No import is empty or holds a line feed.
  explicit ImportList(const std::vector<std::string>& imports);
  // `text` is what text() gave.
  static ImportList of_text(std::string text);

  // As written: `"a/b.h"`, `<vector>`, `pkg.mod`, `./util`, in order, once each.
  std::vector<std::string> all() const;
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// A SHA-256 as bytes, which take a third of the memory of its 64 digits in a string.
class ContentHash {
 public:
  ContentHash() = default;  // of content that was not read
  // `hex` has 64 lower-case hexadecimal digits; any other text is no hash.
  explicit ContentHash(std::string_view hex);
  // "" when there is none.
  std::string hex() const;
  bool empty() const { return !is_known_; }
  bool operator==(const ContentHash&) const = default;

 private:
  std::array<std::uint8_t, 32> bytes_{};
  bool is_known_ = false;
};

// What is known about one file. Kinds other than text and binary are not read: they have no hash.
struct SourceFile {
  std::string path;  // relative to the repository's root, '/' between parts, UTF-8
  FileKind kind = FileKind::text;
  std::uint64_t size = 0;  // bytes; 0 for kinds without a size of their own, such as folders
  ContentHash sha256;      // of the content as read
  std::int64_t lines = 0;  // of a text; a last line without a line feed counts
  std::string language;    // "C++", "Python", ...; "" when not known
  SymbolList symbols;
  ImportList imports;
};

// All files of a repository at one moment. Views and pointers that it gives are valid as long as it lives.
class SourceIndex {
 public:
  SourceIndex() = default;
  // `files` in any order; paths are unique.
  explicit SourceIndex(std::vector<std::shared_ptr<const SourceFile>> files);

  // All files in the order of their paths' bytes.
  const std::vector<std::shared_ptr<const SourceFile>>& files() const { return files_; }
  // The file at `path`, or null.
  const SourceFile* find(std::string_view path) const;
  // The paths of all files with this name (the last part of a path), in order.
  std::vector<std::string> named(std::string_view name) const;

 private:
  void sort_by_name() const;

  std::vector<std::shared_ptr<const SourceFile>> files_;
  mutable std::once_flag named_once_;  // sorted at the first named(), which many processes never call
  mutable std::vector<const SourceFile*> by_name_;
};

}  // namespace ossilar::source
