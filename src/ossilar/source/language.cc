// One table, because the name decides for almost all files: it is known for files that are not read, and
// costs a lookup, where a classifier would have to look at every text. The text is asked only where the name
// says nothing or is shared (`.h`).
//
// Each column becomes a hash map at its first use. A word that stands in several rows belongs to the first of
// them. A change of the table changes what records of the index hold: raise kFormat in record.cc with it.
#include "ossilar/source/language.h"

#include <algorithm>
#include <array>
#include <string>
#include <unordered_map>

namespace ossilar::source {
namespace {

struct Language {
  std::string_view name;
  std::string_view endings;        // of file names, without the dot, separated by blanks
  std::string_view file_names;     // whole names, separated by blanks
  std::string_view programs;       // that a `#!` line may name, without a version at their end
  std::string_view symbol_ending;  // see symbol_ending()
};

constexpr std::array kLanguages = {
    Language{"Ada", "adb ads", "", "", "adb"},
    Language{"Assembly", "s S asm", "", "", ""},
    Language{"Awk", "awk", "", "awk gawk mawk", "awk"},
    Language{"C", "c h", "", "", "c"},
    Language{"C++", "cc cpp cxx c++ C hh hpp hxx h++ H inl ipp tpp cppm ixx", "", "", "cc"},
    Language{"C#", "cs", "", "", "cs"},
    Language{"Clojure", "clj cljs cljc", "", "", "clj"},
    Language{"CMake", "cmake", "CMakeLists.txt", "", "cmake"},
    Language{"CSS", "css scss sass less", "", "", ""},
    Language{"CUDA", "cu cuh", "", "", "cu"},
    Language{"D", "d di", "", "", "d"},
    Language{"Dart", "dart", "", "", ""},
    Language{"Dockerfile", "dockerfile", "Dockerfile Containerfile", "", ""},
    Language{"Elixir", "ex exs", "", "elixir", "ex"},
    Language{"Elm", "elm", "", "", "elm"},
    Language{"Emacs Lisp", "el", "", "", "el"},
    Language{"Erlang", "erl hrl", "", "escript", "erl"},
    Language{"Fortran", "f for f77 f90 f95 f03 f08 F F90", "", "", "f90"},
    Language{"Go", "go", "", "", "go"},
    Language{"GraphQL", "graphql gql", "", "", ""},
    Language{"Groovy", "groovy gradle", "Jenkinsfile", "groovy", ""},
    Language{"Haskell", "hs lhs", "", "runhaskell", "hs"},
    Language{"HTML", "html htm xhtml", "", "", ""},
    Language{"INI", "ini cfg conf", ".editorconfig .gitconfig", "", ""},
    Language{"Java", "java", "", "", "java"},
    Language{"JavaScript", "js jsx mjs cjs", "", "node nodejs", "js"},
    Language{"JSON", "json jsonc json5", "", "", ""},
    Language{"Julia", "jl", "", "julia", "jl"},
    Language{"Kotlin", "kt kts", "", "", "kt"},
    Language{"Lisp", "lisp lsp cl", "", "sbcl", "lisp"},
    Language{"Lua", "lua", "", "lua luajit", "lua"},
    Language{"Makefile", "mk mak make", "Makefile makefile GNUmakefile", "make", "mk"},
    Language{"Markdown", "md markdown", "", "", ""},
    Language{"Meson", "", "meson.build meson_options.txt", "", ""},
    Language{"Nix", "nix", "", "", ""},
    Language{"Objective-C", "m mm", "", "", "m"},
    Language{"OCaml", "ml mli", "", "ocaml", "ml"},
    Language{"Pascal", "pas pp", "", "", "pas"},
    Language{"Perl", "pl pm t", "", "perl", "pl"},
    Language{"PHP", "php phtml", "", "php", "php"},
    Language{"PowerShell", "ps1 psm1 psd1", "", "pwsh", "ps1"},
    Language{"Protocol Buffers", "proto", "", "", "proto"},
    Language{"Python", "py pyi pyx pxd pyw", "SConstruct SConscript", "python pypy", "py"},
    Language{"R", "r R", "", "Rscript", "r"},
    Language{"reStructuredText", "rst", "", "", ""},
    Language{"Ruby", "rb rake gemspec", "Rakefile Gemfile", "ruby", "rb"},
    Language{"Rust", "rs", "", "", "rs"},
    Language{"Scala", "scala sc", "", "scala", ""},
    Language{"Scheme", "scm ss rkt", "", "guile racket", "scm"},
    Language{"Shell", "sh bash zsh ksh bats", ".bashrc .profile .zshrc", "sh bash dash zsh ksh", "sh"},
    Language{"SQL", "sql", "", "", "sql"},
    Language{"Svelte", "svelte", "", "", ""},
    Language{"Swift", "swift", "", "", ""},
    Language{"SystemVerilog", "sv svh", "", "", "sv"},
    Language{"Tcl", "tcl", "", "tclsh wish", "tcl"},
    Language{"Terraform", "tf tfvars", "", "", ""},
    Language{"Thrift", "thrift", "", "", ""},
    Language{"TOML", "toml", "", "", ""},
    Language{"TypeScript", "ts tsx mts cts", "", "deno", "ts"},
    Language{"Verilog", "v", "", "", "v"},
    Language{"VHDL", "vhd vhdl", "", "", "vhd"},
    Language{"Vim Script", "vim", ".vimrc vimrc", "", "vim"},
    Language{"Vue", "vue", "", "", ""},
    Language{"XML", "xml xsd xsl xslt svg", "", "", ""},
    Language{"YAML", "yaml yml", ".clang-format .clang-tidy", "", ""},
    Language{"Zig", "zig", "", "", ""},
};

using ByWord = std::unordered_map<std::string_view, const Language*>;

// Maps each blank-separated word of one column to its row.
ByWord by_word(std::string_view Language::*column) {
  ByWord languages;
  for (const Language& language : kLanguages) {
    for (std::string_view rest = language.*column; !rest.empty();) {
      const std::size_t end = std::min(rest.find(' '), rest.size());
      languages.emplace(rest.substr(0, end), &language);
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
  }
  return languages;
}

const Language* look_up(const ByWord& languages, std::string_view word) {
  const auto found = languages.find(word);
  return found == languages.end() ? nullptr : found->second;
}

std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

const Language* by_name(std::string_view name) {
  static const ByWord names = by_word(&Language::file_names);
  static const ByWord endings = by_word(&Language::endings);
  if (const Language* language = look_up(names, name)) return language;
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return nullptr;
  const std::string_view ending = name.substr(dot + 1);
  // First as written: `.C` and `.c` are two languages. Then `A.PY` is Python, too.
  if (const Language* language = look_up(endings, ending)) return language;
  return look_up(endings, lower(ending));
}

std::string_view next_word(std::string_view& rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
  const std::string_view word = rest.substr(0, rest.find_first_of(" \t\r"));
  rest.remove_prefix(word.size());
  return word;
}

// `#!/usr/bin/env -S python3.11 -u` names python: without env and its options, without the version.
std::string_view program_of_first_line(std::string_view text) {
  if (text.substr(0, 2) != "#!") return {};
  std::string_view line = text.substr(2, text.find('\n') - 2);
  std::string_view program = next_word(line);
  program.remove_prefix(program.rfind('/') + 1);
  if (program == "env") {
    do program = next_word(line);
    while (program.substr(0, 1) == "-");
  }
  return program.substr(0, program.find_last_not_of("0123456789.") + 1);
}

// Whether a header holds what only C++ has there. Keywords count at the start of a line only: in the middle,
// in a comment for instance, they are ordinary words.
bool uses_cpp(std::string_view text) {
  static constexpr std::array<std::string_view, 6> kSigns = {"\nnamespace ", "\nclass ", "\ntemplate",
                                                             "\nusing ",     "std::",    "constexpr "};
  return std::any_of(kSigns.begin(), kSigns.end(),
                     [&](std::string_view sign) { return text.find(sign) != std::string_view::npos; });
}

}  // namespace

std::string_view language_of(std::string_view path, std::string_view text) {
  static const ByWord programs = by_word(&Language::programs);
  const std::string_view name = path.substr(path.rfind('/') + 1);
  const Language* language = by_name(name);
  if (language == nullptr) language = look_up(programs, program_of_first_line(text));
  if (language == nullptr) return {};
  const bool is_header = name.substr(name.size() - std::min<std::size_t>(name.size(), 2)) == ".h";
  return is_header && uses_cpp(text) ? "C++" : language->name;
}

std::string_view symbol_ending(std::string_view language) {
  static const ByWord languages = [] {
    ByWord by_language;
    for (const Language& row : kLanguages) by_language.emplace(row.name, &row);
    return by_language;
  }();
  const Language* row = look_up(languages, language);
  return row == nullptr ? std::string_view() : row->symbol_ending;
}

}  // namespace ossilar::source
