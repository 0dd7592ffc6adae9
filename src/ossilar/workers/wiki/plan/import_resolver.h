// What the includes and imports in source files mean, told from the paths of the repository alone. Build
// files, which may say otherwise, are not read: each build system would need an interpreter. Where several
// files fit and none is nearer than the rest, the import stays unresolved, since a diagram with a wrong edge
// misleads.
//
// module_graph.cc makes one for each plan, folder_items.cc one for a folder. Nothing here throws: an import
// that is malformed or unknown gives "".
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ossilar/source/source_index.h"
#include "ossilar/workers/wiki/plan/path_suffixes.h"

namespace ossilar::workers::wiki {

// Knows C and C++ (CUDA, Objective-C), Python, JavaScript and TypeScript (Vue, Svelte), Go, Rust, and Java
// (Kotlin, Groovy).
//
// Thread-safety: immutable, may be used from any threads.
// Lifetime: the files must outlive the resolver; the paths that it gives are views of theirs.
class ImportResolver {
 public:
  // Linear in the size of the index; resolve() is not, so make one resolver for many imports.
  explicit ImportResolver(const source::SourceIndex& index);
  // Knows these files alone, as if there were no others: quick to make, but what is imported from elsewhere
  // may be taken for a file of the same name among them.
  explicit ImportResolver(const std::vector<const source::SourceFile*>& files);

  // The path of the indexed file that `import`, written as source/imports.h has it, means in `file`. "" for
  // one outside the repository or not resolved. An import of a folder (Go's packages, Java's `a.b.*`) gives
  // the folder's first file of the language: an edge needs a file, and all of a folder are mostly on one
  // page.
  std::string_view resolve(const source::SourceFile& file, std::string_view import) const;

 private:
  using FirstFiles = std::unordered_map<std::string_view, std::string_view>;  // folder to file

  // `folder` is that of the importing file, "" at the root; in rust_in(), rust_module() and rust_below() that
  // of a module's children. `parts` are those of the import.
  std::string_view first_at(std::string_view base, const std::vector<std::string_view>& endings) const;
  std::string_view include(std::string_view folder, std::string_view import) const;
  std::string_view python(std::string_view folder, std::string_view import) const;
  std::string_view python_absolute(std::string_view folder, std::string_view path) const;
  std::string_view javascript(std::string_view folder, std::string_view import) const;
  std::string_view go(std::string_view folder, std::string_view import) const;
  std::string_view rust(std::string_view path, std::string_view import) const;
  std::string_view rust_elsewhere(std::string_view folder, const std::vector<std::string_view>& parts) const;
  std::string_view rust_crate_root(std::string_view folder) const;
  std::string_view rust_in(std::string_view folder, const std::vector<std::string_view>& parts) const;
  std::string_view rust_module(std::string_view folder) const;
  std::string_view rust_below(std::string_view folder, const std::vector<std::string_view>& parts) const;
  std::string_view jvm(std::string_view folder, std::string_view import) const;

  PathSuffixes files_;
  FirstFiles go_packages_;
  FirstFiles jvm_packages_;
  PathSuffixes go_folders_;  // of the packages above, as is the next; made after them
  PathSuffixes jvm_folders_;
};

}  // namespace ossilar::workers::wiki
