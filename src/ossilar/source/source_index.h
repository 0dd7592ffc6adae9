// What is known of the files of a source repository. Immutable: a refresh makes a new one.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::source {

// Files larger than this are indexed by name only.
inline constexpr std::uint64_t kLargestFile = std::uint64_t{10} * 1024 * 1024;

enum class FileKind {
  text,
  binary,      // holds a NUL byte
  large,       // over kLargestFile
  symlink,     // never followed
  submodule,   // a repository of its own
  special,     // pipe, device, socket
  unreadable,  // the system refused
};

struct Symbol {
  std::string name;
  std::string kind;   // "function", "class", ... as the symbol tool names it
  std::string scope;  // what it is declared in, such as "ns::Class"; "" at file level
  std::int64_t line = 0;
};

// A file's symbols in the order of their lines, kept as one text: as objects they would be most of what an
// index takes.
class SymbolList {
 public:
  SymbolList() = default;
  explicit SymbolList(const std::vector<Symbol>& symbols);
  // `text` is what text() gave; of another what can be read is taken.
  static SymbolList of_text(std::string text);

  std::vector<Symbol> all() const;
  // Whether a program may begin here: one at the file's level is called `main`.
  bool has_main() const { return has_main_; }
  // UTF-8 if the symbols are.
  const std::string& text() const { return text_; }

 private:
  explicit SymbolList(std::string text);

  std::string text_;
  bool has_main_ = false;
};

// What a file takes in from others, kept as one text as its symbols are.
class ImportList {
 public:
  ImportList() = default;
  // None holds a line break.
  explicit ImportList(const std::vector<std::string>& imports);
  // `text` is what text() gave.
  static ImportList of_text(std::string text);

  // As written: `"a/b.h"`, `<vector>`, `pkg.mod`, `./util`, in order, once each.
  std::vector<std::string> all() const;
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// A SHA-256, in a third of the memory that its digits take.
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

struct SourceFile {
  std::string path;  // relative to the repository's root, '/' between parts, UTF-8
  FileKind kind = FileKind::text;
  std::uint64_t size = 0;
  ContentHash sha256;  // of the content as read
  std::int64_t lines = 0;
  std::string language;  // "C++", "Python", ...; "" when not known
  SymbolList symbols;
  ImportList imports;
};

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
  mutable std::once_flag named_once_;  // names are asked for by few
  mutable std::vector<const SourceFile*> by_name_;
};

}  // namespace ossilar::source
