// Finds what a source file imports, by a scan of its lines. It is no parser: a comment or a string that reads
// like an import counts as one. refresh.cc calls it for each text that it reads; which files are meant is
// decided later (workers/wiki/plan/import_resolver.h).
//
// Thread-safety: may be called from any thread. Any text is accepted; there is nothing to fail.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ossilar::source {

// Imports that are kept of a file, the first ones. A file with more is generated, and what it imports tells a
// reader nothing.
inline constexpr std::size_t kMaxImports = 500;

// The imports of `text` as written, in order, once each, at most kMaxImports: `"a/b.h"` and `<vector>` with
// their quotes or brackets, everything else bare: `pkg.mod`, `./util`, `crate::x`. A Rust `mod m;` counts as
// `self::m`. All are UTF-8, and none holds a line feed. None for a language whose imports are not known.
std::vector<std::string> imports_of(std::string_view language, std::string_view text);

// Raise it when imports are read in another way, or of another language: files that were read before are then
// read again. A new language needs a rule in workers/wiki/plan/import_resolver.cc too, or what is read leads
// nowhere, as for C#, PHP, Ruby and Swift so far.
inline constexpr int kImportRules = 2;

}  // namespace ossilar::source
