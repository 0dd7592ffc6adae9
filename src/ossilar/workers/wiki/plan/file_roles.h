// What files and folders are to a reader of the repository, told by their names, languages and sizes.
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
  other,     // data, lock files, licences, generated and minified code, what is no text
};

FileRole file_role(const source::SourceFile& file);

enum class FolderRole { ordinary, tests, examples, benchmarks, vendored, docs, generated };

FolderRole folder_role(std::string_view path, const source::SourceIndex& index);

bool is_readme(std::string_view path);

// Whether a folder of this name at the root holds what serves the project's upkeep: scripts, CI, packaging.
bool is_upkeep_folder(std::string_view name);

// The last part of a path, that part up to its last '.', and the path of the folder, "" at the root.
std::string_view file_name(std::string_view path);
std::string_view file_stem(std::string_view path);
std::string_view folder_of(std::string_view path);

// How much `file` tells a newcomer about the folder that it is in; a lower rank tells more. Below
// kNoEntryPoint for files that begin a program or a package, or are named after their folder.
inline constexpr int kNoEntryPoint = 10;
int entry_rank(const source::SourceFile& file);

// READMEs, and the manifests at the root: what an overview rests on.
std::vector<std::string> overview_files(const source::SourceIndex& index);

}  // namespace ossilar::workers::wiki
