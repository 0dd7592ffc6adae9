// Compares two texts. A save onto an old version is answered with what changed since
// (workers/wiki/pages/page_version.cc).
#pragma once

#include <string>
#include <string_view>

namespace ossilar::source {

// One of two texts to compare.
struct NamedText {
  std::string name;       // stands in the diff's header, "--- NAME"
  std::string_view text;  // any bytes
};

// The unified diff from `before` to `after`, with three lines of context: "--- NAME", "+++ NAME" and the
// hunks, without git's own header lines. "" for equal texts. Throws utils::Error when libgit2 fails, as for
// want of memory.
//
// Thread-safety: may be called from any thread.
std::string unified_diff(const NamedText& before, const NamedText& after);

}  // namespace ossilar::source
