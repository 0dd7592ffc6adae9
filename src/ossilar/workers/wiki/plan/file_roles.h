// What files and folders are to a reader of the repository, told by their names, languages and sizes. No file
// is opened. The rest of plan/ builds on it, and grounding/ ranks the sources of a page by it.
//
// Thread-safety: no state is kept, so any thread may call these. None fails: what no rule knows is
// FileRole::other or FolderRole::ordinary.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ossilar/source/source_index.h"

namespace ossilar::workers::wiki {

enum class FileRole {
  code,
  test,      // code that tests what lies beside it, such as x_test.go
  prose,     // Markdown and the like
  manifest,  // says how to build or package: Cargo.toml, Makefile, ...
  bundled,   // a library of one or two files that many projects copy, such as a single-header library
  other,     // data, lock files, licences, generated and minified code, what is no text
};

// The role of a file by itself; that of its folder is not considered.
FileRole file_role(const source::SourceFile& file);

enum class FolderRole { ordinary, tests, examples, benchmarks, vendored, docs, generated };

// The role of the folder `path`, by its own name; for what lies in it, ask for the folders above too. `index`
// is that of the whole repository.
FolderRole folder_role(std::string_view path, const source::SourceIndex& index);

// Whether this is code that nobody here writes: of other projects, or generated.
inline bool is_bundled(FolderRole role) {
  return role == FolderRole::vendored || role == FolderRole::generated;
}

// Whether the file is a grammar, of which a parser in another language is generated beside it.
bool is_grammar(const source::SourceFile& file);

// Whether the file's name is that of a licence.
bool is_licence(std::string_view path);

// Whether the file's name begins with README, in any case and folder.
bool is_readme(std::string_view path);

// Whether a folder of this name at the root holds what serves the project's upkeep: scripts, CI, packaging.
bool is_upkeep_folder(std::string_view name);

// The last part of a path; that part up to its last '.', whole for a name like ".gitignore"; and the path of
// the folder, "" at the root. All are views of `path`.
std::string_view file_name(std::string_view path);
std::string_view file_stem(std::string_view path);
std::string_view folder_of(std::string_view path);

// How much `file` tells a newcomer about the folder that it is in; a lower rank tells more. Below
// kNoEntryPoint for files that begin a program or a package, or are named after their folder.
inline constexpr int kNoEntryPoint = 10;  // above every rank of an entry point; the distance means nothing
int entry_rank(const source::SourceFile& file);

// The paths of the READMEs and manifests at the root, in this order and twelve at most: what an overview
// rests on.
std::vector<std::string> overview_files(const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
