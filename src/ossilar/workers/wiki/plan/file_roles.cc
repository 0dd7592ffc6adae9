// Tables of names, in lower case, with the rules that read them. Names and not contents: a plan asks for the
// role of every file of the index, and it must be the same on every machine. A wrong guess costs little, as
// ossilar.toml can name the sources of a page; so a name without a clear meaning is left ordinary.
#include "ossilar/workers/wiki/plan/file_roles.h"

#include <algorithm>
#include <array>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/plan/plan_names.h"

namespace ossilar::workers::wiki {
namespace {

using source::SourceFile;

// Hand-written code stays far below this many bytes a line on average, even where single lines are long; what
// a minifier made, on a few lines, does not.
constexpr std::uint64_t kMinifiedBytesPerLine = 400;
// The overview's readings are for a newcomer: a dozen files is as much as anyone opens first.
constexpr std::size_t kOverviewFiles = 12;

template <std::size_t n>
bool is_one_of(std::string_view text, const std::array<std::string_view, n>& names) {
  return std::find(names.begin(), names.end(), text) != names.end();
}

template <std::size_t n>
bool ends_with_one_of(std::string_view text, const std::array<std::string_view, n>& endings) {
  return std::any_of(endings.begin(), endings.end(), [&](std::string_view e) { return text.ends_with(e); });
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// The endings are of prose formats that the language table (source/language.cc) does not have.
bool is_prose(std::string_view language, std::string_view name) {
  return language == "Markdown" || language == "reStructuredText" ||
         ends_with_one_of(name,
                          std::array<std::string_view, 5>{".txt", ".adoc", ".asciidoc", ".org", ".texi"});
}

// Languages of which a file is data, unless its name makes it a manifest.
bool is_data(std::string_view language) {
  static constexpr std::array<std::string_view, 5> kNames{"INI", "JSON", "TOML", "XML", "YAML"};
  return is_one_of(language, kNames);
}

// `name` is in lower case, so that "build" is Bazel's BUILD and "makefile" is also Makefile.
bool is_manifest(std::string_view name) {
  static constexpr std::array<std::string_view, 37> kNames{"package.json",
                                                           "cmakelists.txt",
                                                           "cargo.toml",
                                                           "pyproject.toml",
                                                           "setup.py",
                                                           "setup.cfg",
                                                           "go.mod",
                                                           "go.work",
                                                           "pom.xml",
                                                           "build.gradle",
                                                           "build.gradle.kts",
                                                           "settings.gradle",
                                                           "settings.gradle.kts",
                                                           "makefile",
                                                           "gnumakefile",
                                                           "makefile.am",
                                                           "configure.ac",
                                                           "configure.in",
                                                           "meson.build",
                                                           "build.rs",
                                                           "build.zig",
                                                           "build",
                                                           "build.bazel",
                                                           "workspace",
                                                           "module.bazel",
                                                           "dockerfile",
                                                           "docker-compose.yml",
                                                           "gemfile",
                                                           "rakefile",
                                                           "composer.json",
                                                           "mix.exs",
                                                           "package.swift",
                                                           "dune-project",
                                                           "sconstruct",
                                                           "justfile",
                                                           "conanfile.py",
                                                           "jenkinsfile"};
  return is_one_of(name, kNames) ||
         ends_with_one_of(name, std::array<std::string_view, 4>{".gemspec", ".cabal", ".sln", ".csproj"});
}

// Scripts that build tools put into a repository.
bool is_of_build_tools(std::string_view name) {
  static constexpr std::array<std::string_view, 14> kNames{
      "configure", "aclocal.m4", "ltmain.sh",  "config.guess", "config.sub",   "install-sh", "depcomp",
      "missing",   "compile",    "py-compile", "test-driver",  "config.rpath", "ylwrap",     "gradlew"};
  return is_one_of(name, kNames);
}

// Names by which generators and package managers mark what they write.
bool is_generated(std::string_view name) {
  static constexpr std::array<std::string_view, 14> kEndings{
      ".lock",  "-lock.json", "-lock.yaml", ".sum",    "_pb2.py", "_pb2_grpc.py", ".pb.go",
      ".pb.cc", ".pb.h",      ".map",       ".pb-c.c", ".pb-c.h", "_generated.h", ".g.dart"};
  static constexpr std::array<std::string_view, 5> kParts{".min.", ".generated.", ".bundle.", ".tab.",
                                                          ".yy."};
  const auto is_in_name = [&](std::string_view part) { return contains(name, part); };
  return ends_with_one_of(name, kEndings) || std::any_of(kParts.begin(), kParts.end(), is_in_name) ||
         name.starts_with("zz_generated") || is_of_build_tools(name);
}

// Libraries that are one file or a pair, meant to be copied, and copied under their own name.
bool is_copied_library(std::string_view name) {
  static constexpr std::array<std::string_view, 24> kStems{"catch",     "catch_amalgamated",
                                                           "doctest",   "httplib",
                                                           "miniz",     "lodepng",
                                                           "cjson",     "uthash",
                                                           "utlist",    "khash",
                                                           "jsmn",      "linenoise",
                                                           "xxhash",    "tinyxml2",
                                                           "pugixml",   "nuklear",
                                                           "sqlite3",   "sqlite3ext",
                                                           "modernizr", "html5shiv",
                                                           "doctools",  "searchtools",
                                                           "six",       "require"};
  static constexpr std::array<std::string_view, 4> kBeginnings{"stb_", "jquery", "underscore", "bootstrap"};
  const std::string_view stem = name.substr(0, name.find('.'));
  return is_one_of(stem, kStems) || std::any_of(kBeginnings.begin(), kBeginnings.end(),
                                                [&](std::string_view b) { return name.starts_with(b); });
}

bool is_minified(const SourceFile& file) {
  return file.size >
         kMinifiedBytesPerLine * static_cast<std::uint64_t>(std::max<std::int64_t>(file.lines, 1));
}

// The conventions by which test runners find files. "test_" is one in Python alone; elsewhere the word is as
// often part of what the code is about.
bool is_test(std::string_view name) {
  const std::string_view stem = name.substr(0, name.rfind('.'));
  return stem.ends_with("_test") || stem.ends_with(".test") || stem.ends_with(".spec") ||
         stem.ends_with("_spec") || stem.ends_with("_unittest") ||
         (stem.starts_with("test_") && name.ends_with(".py"));
}

constexpr int kNoReadme = 3;

// README.md, then other formats and translations ("readme.fr.md"), then names like "README-dev".
int readme_rank(std::string_view name) {
  if (name == "readme.md") return 0;
  if (name == "readme" || name.starts_with("readme.")) return 1;
  return name.starts_with("readme") ? 2 : kNoReadme;
}

// Prose that says nothing about the code, and changes with every release or never: as a source it would make
// pages stale for nothing.
bool is_formality(std::string_view name) {
  static constexpr std::array<std::string_view, 10> kBeginnings{"changelog", "changes", "history", "news",
                                                                "release",   "license", "licence", "copying",
                                                                "authors",   "notice"};
  return std::any_of(kBeginnings.begin(), kBeginnings.end(),
                     [&](std::string_view b) { return name.starts_with(b); });
}

// A Python package `test` with something in its __init__.py is imported by others for their tests, and so
// part of what the project offers. Up to two lines are the marker of a package.
bool offers_names(std::string_view folder, const source::SourceIndex& index) {
  const SourceFile* package = index.find(std::string(folder) + "/__init__.py");
  return package != nullptr && package->lines > 2;
}

}  // namespace

std::string_view file_name(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string_view file_stem(std::string_view path) {
  const std::string_view name = file_name(path);
  const std::size_t dot = name.rfind('.');
  return dot == 0 ? name : name.substr(0, dot);  // without a dot npos, and so the whole name
}

std::string_view folder_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

// The order decides between rules that fit the same name: package-lock.json is generated though its language
// is data, CMakeLists.txt a manifest though it ends in .txt, setup.py one though it is code.
FileRole file_role(const SourceFile& file) {
  if (file.kind != source::FileKind::text) return FileRole::other;
  const std::string name = utils::lower_case(file_name(file.path));
  if (is_generated(name)) return FileRole::other;
  if (is_manifest(name)) return FileRole::manifest;
  if (is_prose(file.language, name)) return is_formality(name) ? FileRole::other : FileRole::prose;
  if (file.language.empty() || is_data(file.language) || is_minified(file)) return FileRole::other;
  // A library's own repository has it at the root.
  if (is_copied_library(name) && !folder_of(file.path).empty()) return FileRole::bundled;
  return is_test(name) ? FileRole::test : FileRole::code;
}

bool is_grammar(const SourceFile& file) {
  static constexpr std::array<std::string_view, 6> kEndings{".y", ".l", ".yy", ".ll", ".rl", ".re"};
  return ends_with_one_of(file.path, kEndings);
}

bool is_licence(std::string_view path) {
  static constexpr std::array<std::string_view, 4> kBeginnings{"license", "licence", "copying", "copyright"};
  // Most names need no more than a look at their first letter.
  const std::string_view written = file_name(path);
  if (written.find_first_of("lLcC") != 0) return false;
  const std::string name = utils::lower_case(file_name(path));
  return std::any_of(kBeginnings.begin(), kBeginnings.end(),
                     [&](std::string_view b) { return name.starts_with(b); });
}

bool is_readme(std::string_view path) { return readme_rank(utils::lower_case(file_name(path))) < kNoReadme; }

// Names by convention. A name is listed where it has that meaning in nearly every repository; one that is as
// often a module's name would hide real code from the plan.
FolderRole folder_role(std::string_view path, const source::SourceIndex& index) {
  static constexpr std::array<std::string_view, 15> kTests{
      "test", "tests",     "__tests__", "spec",      "specs",     "testdata", "test-data",        "fixtures",
      "e2e",  "unittests", "js_tests",  "testsuite", "test_data", "unittest", "integration-tests"};
  static constexpr std::array<std::string_view, 7> kExamples{"example", "examples", "sample",   "samples",
                                                             "demo",    "demos",    "tutorials"};
  static constexpr std::array<std::string_view, 6> kBenchmarks{"bench",      "benches",    "benchmark",
                                                               "benchmarks", "benchsuite", "perftests"};
  static constexpr std::array<std::string_view, 11> kVendored{
      "vendor",   "vendored",     "_vendor",          "third_party", "third-party",  "thirdparty",
      "3rdparty", "node_modules", "bower_components", "bundled",     "site-packages"};
  // Deeper down these names are as often a module of the project's own.
  static constexpr std::array<std::string_view, 5> kVendoredAtTop{"deps", "external", "externals", "extern",
                                                                  "subprojects"};
  static constexpr std::array<std::string_view, 4> kDocs{"doc", "docs", "documentation", "man"};
  static constexpr std::array<std::string_view, 3> kGenerated{"dist", "generated", "__generated__"};
  const std::string name = utils::lower_case(file_name(path));
  const bool at_top = folder_of(path).empty();
  if (name == "test" && offers_names(path, index)) return FolderRole::ordinary;
  // "t" is where Perl has its tests; deeper down one letter may be anything.
  if (is_one_of(name, kTests) || (at_top && name == "t")) return FolderRole::tests;
  if (is_one_of(name, kExamples)) return FolderRole::examples;
  if (is_one_of(name, kBenchmarks)) return FolderRole::benchmarks;
  if (is_one_of(name, kVendored) || (at_top && is_one_of(name, kVendoredAtTop))) return FolderRole::vendored;
  if (is_one_of(name, kDocs)) return FolderRole::docs;
  // With a package.json beside it, build/ is what a bundler made; in other repositories it holds build
  // scripts.
  const bool bundles = at_top && name == "build" && index.find("package.json") != nullptr;
  return bundles || is_one_of(name, kGenerated) ? FolderRole::generated : FolderRole::ordinary;
}

bool is_upkeep_folder(std::string_view name) {
  static constexpr std::array<std::string_view, 16> kNames{
      "scripts", "script", "contrib", "ci",   ".ci",    ".github",   ".circleci", "cmake",
      "m4",      "debian", "dev",     "hack", "extras", "packaging", "build-aux", "buildsrc"};
  return is_one_of(utils::lower_case(name), kNames);
}

// By names first: in many languages a program needs no main(), and a test or a tool beside the program may
// have one. The repository's name is no criterion: a checkout may have any, and two checkouts must get the
// same plan.
int entry_rank(const SourceFile& file) {
  static constexpr std::array<std::string_view, 5> kProgram{"main", "__main__", "index", "app", "server"};
  static constexpr std::array<std::string_view, 4> kPackage{"lib", "mod", "__init__", "doc"};
  const std::string stem = utils::lower_case(file_stem(file.path));
  if (is_one_of(stem, kProgram)) return 0;
  if (is_one_of(stem, kPackage)) return 1;
  if (stem == utils::lower_case(file_name(folder_of(file.path)))) return 2;
  return file.symbols.has_main() ? 3 : kNoEntryPoint;
}

std::vector<std::string> overview_files(const source::SourceIndex& index) {
  std::vector<std::pair<int, std::string>> ranked;
  for (const auto& file : index.files()) {
    if (file->kind != source::FileKind::text || file->path.find('/') != std::string::npos) continue;
    // Manifests have the rank of no README, which sorts them behind all of those.
    const int rank = readme_rank(utils::lower_case(file->path));
    if (rank < kNoReadme || file_role(*file) == FileRole::manifest) ranked.emplace_back(rank, file->path);
  }
  std::sort(ranked.begin(), ranked.end());
  if (ranked.size() > kOverviewFiles) ranked.resize(kOverviewFiles);
  std::vector<std::string> out;
  out.reserve(ranked.size());
  for (auto& [rank, path] : ranked) out.push_back(std::move(path));
  return out;
}

}  // namespace ossilar::workers::wiki
