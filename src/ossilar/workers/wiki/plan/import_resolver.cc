// Each language's rule for searching, applied to paths alone. Most begin at a folder that a build file names;
// as that is not read, PathSuffixes finds the files that end as the import says, the only one or the nearest.
// The rules err on the side of nothing: standard libraries and short names, which fit by accident, are left
// out or looked for only nearby.
#include "ossilar/workers/wiki/plan/import_resolver.h"

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

#include "ossilar/workers/wiki/plan/file_roles.h"

namespace ossilar::workers::wiki {
namespace {

using Parts = std::vector<std::string_view>;

template <std::size_t N>
bool holds(const std::array<std::string_view, N>& words, std::string_view word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

bool starts_with(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

Parts split(std::string_view text, std::string_view separator) {
  Parts parts;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(separator, begin), text.size());
    parts.push_back(text.substr(begin, end - begin));
    begin = end + separator.size();
  }
  return parts;
}

std::string joined(Parts::const_iterator first, Parts::const_iterator last) {
  std::string out;
  for (auto part = first; part != last; ++part) {
    if (!out.empty()) out += '/';
    out += *part;
  }
  return out;
}

std::string below(std::string_view folder, std::string_view path) {
  if (folder.empty() || path.empty()) return std::string(folder) + std::string(path);
  return std::string(folder) + "/" + std::string(path);
}

// `path`, taken from `folder`, without "." and ".."; none when it leads out of the repository.
std::optional<std::string> relative(std::string_view folder, std::string_view path) {
  const std::string whole = below(folder, path);
  Parts kept;
  for (const std::string_view part : split(whole, "/")) {
    if (part == "..") {
      if (kept.empty()) return std::nullopt;
      kept.pop_back();
    } else if (!part.empty() && part != ".") {
      kept.push_back(part);
    }
  }
  return joined(kept.begin(), kept.end());
}

// The first part of every import of Go's standard library, as of Go 1.24. Without it `encoding/json` would
// mean a folder json/ of the repository.
constexpr std::array<std::string_view, 50> kGoStandard{
    "C",      "archive",  "bufio",   "builtin", "bytes",    "cmp",    "compress", "container", "context",
    "crypto", "database", "debug",   "embed",   "encoding", "errors", "expvar",   "flag",      "fmt",
    "go",     "hash",     "html",    "image",   "index",    "io",     "iter",     "log",       "maps",
    "math",   "mime",     "net",     "os",      "path",     "plugin", "reflect",  "regexp",    "runtime",
    "slices", "sort",     "strconv", "strings", "structs",  "sync",   "syscall",  "testing",   "text",
    "time",   "unicode",  "unique",  "unsafe",  "weak"};

constexpr std::array<std::string_view, 3> kJvmEndings{".java", ".kt", ".groovy"};

// In the order in which they are tried: the file as named, then TypeScript before the JavaScript that may be
// made of it, then a folder's index.
const Parts& script_endings() {
  static const Parts endings{
      "",           ".ts",         ".tsx",      ".d.ts",      ".js",        ".jsx",       ".mjs",
      ".cjs",       ".mts",        ".cts",      ".vue",       ".svelte",    ".json",      "/index.ts",
      "/index.tsx", "/index.d.ts", "/index.js", "/index.jsx", "/index.mjs", "/index.cjs", "/index.vue"};
  return endings;
}

// Sources before stubs, which say the same of the module but not how it works.
const Parts& python_endings() {
  static const Parts endings{".py", "/__init__.py", ".pyi", "/__init__.pyi", ".pyx"};
  return endings;
}

bool ends_with(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

std::vector<const source::SourceFile*> all_files(const source::SourceIndex& index) {
  std::vector<const source::SourceFile*> files;
  files.reserve(index.files().size());
  for (const auto& file : index.files()) files.push_back(file.get());
  return files;
}

std::vector<std::string_view> all_paths(const std::vector<const source::SourceFile*>& files) {
  std::vector<std::string_view> paths;
  paths.reserve(files.size());
  for (const source::SourceFile* file : files) paths.emplace_back(file->path);
  return paths;
}

// For each folder its first file with one of `endings`; a test (*_test.go, which lies beside the code) only
// if there is nothing else.
template <std::size_t N>
std::unordered_map<std::string_view, std::string_view> first_files(
    const std::vector<const source::SourceFile*>& files, const std::array<std::string_view, N>& endings) {
  std::unordered_map<std::string_view, std::string_view> first;
  for (const source::SourceFile* file : files) {
    const std::string_view path = file->path;
    if (std::none_of(endings.begin(), endings.end(), [&](auto end) { return ends_with(path, end); }))
      continue;
    std::string_view& kept = first[folder_of(path)];
    if (kept.empty() || ends_with(kept, "_test.go")) kept = path;
  }
  return first;
}

std::vector<std::string_view> folders(
    const std::unordered_map<std::string_view, std::string_view>& first_files) {
  std::vector<std::string_view> out;
  for (const auto& [folder, file] : first_files) {
    // The root has no name by which an import could find it.
    if (!folder.empty()) out.push_back(folder);
  }
  return out;
}

std::string_view file_in(const std::unordered_map<std::string_view, std::string_view>& first_files,
                         std::string_view folder) {
  const auto found = first_files.find(folder);
  return folder.empty() || found == first_files.end() ? std::string_view() : found->second;
}

// The folder with the child modules of the Rust file `path`: its own folder for mod.rs and the root of a
// crate, else the folder named like the file.
std::string rust_children(std::string_view path) {
  static constexpr std::array<std::string_view, 3> kFolderModules{"mod", "lib", "main"};
  const std::string_view stem = file_stem(path);
  const std::string_view folder = folder_of(path);
  return holds(kFolderModules, stem) ? std::string(folder) : below(folder, stem);
}

}  // namespace

ImportResolver::ImportResolver(const source::SourceIndex& index) : ImportResolver(all_files(index)) {}

ImportResolver::ImportResolver(const std::vector<const source::SourceFile*>& files)
    : files_(all_paths(files)),
      go_packages_(first_files(files, std::array<std::string_view, 1>{".go"})),
      jvm_packages_(first_files(files, kJvmEndings)),
      go_folders_(folders(go_packages_)),
      jvm_folders_(folders(jvm_packages_)) {}

std::string_view ImportResolver::resolve(const source::SourceFile& file, std::string_view import) const {
  static constexpr std::array<std::string_view, 4> kScripts{"JavaScript", "TypeScript", "Vue", "Svelte"};
  static constexpr std::array<std::string_view, 3> kJvm{"Java", "Kotlin", "Groovy"};
  if (import.empty()) return {};
  const std::string_view folder = folder_of(file.path);
  // By the import's form and not by language: only the C family's have quotes or angle brackets.
  if (import.front() == '"' || import.front() == '<') return include(folder, import);
  if (file.language == "Python") return python(folder, import);
  if (file.language == "Go") return go(folder, import);
  if (file.language == "Rust") return rust(file.path, import);
  if (holds(kScripts, file.language)) return javascript(folder, import);
  if (holds(kJvm, file.language)) return jvm(folder, import);
  return {};
}

// The first file of which the path is `base` with one of `endings`, in their order.
std::string_view ImportResolver::first_at(std::string_view base, const Parts& endings) const {
  for (const std::string_view ending : endings) {
    const std::string_view found = files_.exact(std::string(base) + std::string(ending));
    if (!found.empty()) return found;
  }
  return {};
}

// As a compiler searches: quotes beside the file first, then the include folders. Those stand in build files,
// so the end of the path has to do.
std::string_view ImportResolver::include(std::string_view folder, std::string_view import) const {
  if (import.size() < 3) return {};  // no name between the marks
  std::string_view name = import.substr(1, import.size() - 2);
  if (import.front() == '"') {
    const auto path = relative(folder, name);
    const std::string_view found = path ? files_.exact(*path) : std::string_view();
    if (!found.empty()) return found;
  }
  // From an include folder dots mean nothing that is known here; what follows them may still be found.
  while (starts_with(name, "../") || starts_with(name, "./")) name.remove_prefix(name.find('/') + 1);
  // <string.h> is the system's, unless a folder for includes has one.
  const bool may_be_system = import.front() == '<' && name.find('/') == std::string_view::npos;
  if (!may_be_system) return files_.find(name, folder);
  return files_.nearest(name, folder, [](std::string_view root) { return ends_with(root, "include/"); });
}

// `.a` is relative to the file's package, each further dot one package up; without dots the import is
// absolute.
std::string_view ImportResolver::python(std::string_view folder, std::string_view import) const {
  const std::size_t dots = std::min(import.find_first_not_of('.'), import.size());
  const Parts parts = split(import.substr(dots), ".");
  const std::string path = joined(parts.begin(), parts.end());
  if (dots == 0) return python_absolute(folder, path);
  std::string up;
  for (std::size_t dot = 1; dot < dots; ++dot) up += "../";
  const auto base = relative(folder, up + path);
  if (!base) return {};
  const std::string_view found = path.empty() ? std::string_view() : first_at(*base, python_endings());
  // What is imported from a package may be a name in its __init__.py.
  const std::string package = path.empty() ? *base : std::string(folder_of(*base));
  return found.empty() ? files_.exact(below(package, "__init__.py")) : found;
}

// Absolute imports begin at a folder of sys.path, which is no package itself. `import json` has a name that
// any folder may hold, so one part is only looked for near the file.
std::string_view ImportResolver::python_absolute(std::string_view folder, std::string_view path) const {
  const auto is_root = [&](std::string_view root) {
    return files_.exact(std::string(root) + "__init__.py").empty();
  };
  const bool one_part = path.find('/') == std::string_view::npos;
  for (const std::string_view ending : python_endings()) {
    const std::string suffix = std::string(path) + std::string(ending);
    const std::string_view found =
        one_part ? files_.nearest(suffix, folder, is_root) : files_.find(suffix, folder, is_root);
    if (!found.empty()) return found;
  }
  return {};
}

// Only relative imports are files of the repository. The rest names packages, or aliases that a bundler's
// configuration defines.
std::string_view ImportResolver::javascript(std::string_view folder, std::string_view import) const {
  const bool local =
      import == "." || import == ".." || starts_with(import, "./") || starts_with(import, "../");
  if (!local) return {};
  const auto path = relative(folder, import);
  if (!path) return {};
  // At the root there is no folder name for "/index.ts" to follow.
  const std::string_view found =
      path->empty() ? first_at("index", script_endings()) : first_at(*path, script_endings());
  if (!found.empty()) return found;
  // TypeScript names the JavaScript file that will be made of its source.
  for (const std::string_view ending : {".js", ".jsx", ".mjs", ".cjs"}) {
    if (path->ends_with(ending))
      return first_at(std::string_view(*path).substr(0, path->size() - ending.size()), script_endings());
  }
  return {};
}

// An import begins with the module's path, which only go.mod tells. It is not read; instead the longest end
// of the import that is a package here counts. One part alone (".../errors") is too common to be looked for
// everywhere.
std::string_view ImportResolver::go(std::string_view folder, std::string_view import) const {
  const Parts parts = split(import, "/");
  if (holds(kGoStandard, parts.front())) return {};
  for (std::size_t skip = 0; skip < parts.size(); ++skip) {
    const std::string suffix = joined(parts.begin() + static_cast<std::ptrdiff_t>(skip), parts.end());
    const bool one_part = skip + 1 == parts.size();
    const std::string_view found =
        one_part ? go_folders_.nearest(suffix, folder) : go_folders_.find(suffix, folder);
    if (!found.empty()) return file_in(go_packages_, found);
  }
  return {};
}

// The first part decides: `crate` from the crate's root, `super` from the modules above, `self` from this
// one. Anything else is a child of this module, or else another crate of the workspace.
std::string_view ImportResolver::rust(std::string_view path, std::string_view import) const {
  const Parts parts = split(import, "::");
  const std::string_view folder = folder_of(path);
  const std::string children = rust_children(path);
  if (parts.front() == "crate") return rust_in(rust_crate_root(folder), {parts.begin() + 1, parts.end()});
  if (parts.front() == "super") {
    std::string_view module = children;
    auto part = parts.begin();
    for (; part != parts.end() && *part == "super"; ++part) module = folder_of(module);
    return rust_in(module, {part, parts.end()});
  }
  const bool self = parts.front() == "self";
  const Parts rest(parts.begin() + (self ? 1 : 0), parts.end());
  const std::string_view found = rust_below(children, rest);
  if (!found.empty()) return found;
  // Files of tests/, examples/ and src/bin/ are crates of their own, whose modules lie beside them.
  return self ? rust_below(folder, rest) : rust_elsewhere(folder, parts);
}

// The nearest folder upward that holds the root of a crate; "" if none does. The manifest may name another
// root, but is not read.
std::string_view ImportResolver::rust_crate_root(std::string_view folder) const {
  const auto is_root = [&](std::string_view candidate) {
    return !first_at(below(candidate, "lib"), {".rs"}).empty() ||
           !first_at(below(candidate, "main"), {".rs"}).empty();
  };
  while (!folder.empty() && !is_root(folder)) folder = folder_of(folder);
  return folder;
}

// What `parts` means in the module whose children lie in `folder`: a child, or else a name in the module's
// own file.
std::string_view ImportResolver::rust_in(std::string_view folder, const Parts& parts) const {
  const std::string_view found = rust_below(folder, parts);
  return found.empty() ? rust_module(folder) : found;
}

// A path that begins with the name of another crate of the workspace. Code writes '_' where the crate's
// folder mostly has '-'.
std::string_view ImportResolver::rust_elsewhere(std::string_view folder, const Parts& parts) const {
  std::string name(parts.front());
  std::string_view root = files_.find(name + "/src/lib.rs", folder);
  if (root.empty()) {
    std::replace(name.begin(), name.end(), '_', '-');
    root = files_.find(name + "/src/lib.rs", folder);
  }
  return root.empty() ? root : rust_in(folder_of(root), {parts.begin() + 1, parts.end()});
}

// The file of the module whose children lie in `folder`: within it, or beside it with its name.
std::string_view ImportResolver::rust_module(std::string_view folder) const {
  for (const std::string_view name : {"mod.rs", "lib.rs", "main.rs"}) {
    const std::string_view found = files_.exact(below(folder, name));
    if (!found.empty()) return found;
  }
  return files_.exact(std::string(folder) + ".rs");
}

// The deepest module on the path `parts` below `folder`: the last parts may be names in a module.
std::string_view ImportResolver::rust_below(std::string_view folder, const Parts& parts) const {
  for (auto end = parts.end(); end != parts.begin(); --end) {
    const std::string base = below(folder, joined(parts.begin(), end));
    const std::string_view found = first_at(base, {".rs", "/mod.rs"});
    if (!found.empty()) return found;
  }
  return {};
}

// A class is a file at the path of its package. Some last parts may be names within the class, so they are
// dropped one by one, the longest match first.
std::string_view ImportResolver::jvm(std::string_view folder, std::string_view import) const {
  // How many last parts may name something: a class, a class in it, and a static member of that.
  static constexpr std::ptrdiff_t kDeepestName = 3;
  const Parts parts = split(import, ".");
  const auto package_end = [&](std::ptrdiff_t dropped) { return parts.end() - dropped; };
  const auto size = static_cast<std::ptrdiff_t>(parts.size());
  for (std::ptrdiff_t dropped = 0; dropped < kDeepestName && size - dropped >= 2; ++dropped) {
    const std::string base = joined(parts.begin(), package_end(dropped));
    for (const std::string_view ending : kJvmEndings) {
      const std::string_view found = files_.find(base + std::string(ending), folder);
      if (!found.empty()) return found;
    }
  }
  // All of a package, or a function in one of its files. A package of one part is too common a folder name.
  if (size < 3) return {};
  return file_in(jvm_packages_, jvm_folders_.find(joined(parts.begin(), package_end(1)), folder));
}

}  // namespace ossilar::workers::wiki
