// What a source file takes in from other files, by a scan of its lines: no parser, so that text in a comment
// or a string that reads like an import counts as one.
//
// Thread-safety: may be called from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ossilar::source {

// Beyond this many a file is generated, and what it imports tells a reader nothing.
inline constexpr std::size_t kMaxImports = 500;

// The imports of `text` as written, in order, once each, at most kMaxImports: `"a/b.h"` and `<vector>` with
// their marks, everything else bare: `pkg.mod`, `./util`, `crate::x`. A Rust `mod m;` counts as `self::m`.
// None for a language whose imports are not known.
std::vector<std::string> imports_of(std::string_view language, std::string_view text);

}  // namespace ossilar::source
