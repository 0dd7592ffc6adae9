// What differs between two texts.
#pragma once

#include <string>
#include <string_view>

namespace ossilar::source {

// A text of a comparison with the name that the diff gives it.
struct NamedText {
  std::string name;
  std::string_view text;
};

// The unified diff (libgit2's, with three lines of context) that leads from `before` to `after`, without
// git's own header lines; "" for equal texts. Throws utils::Error.
//
// Thread-safety: may be called from any thread.
std::string unified_diff(const NamedText& before, const NamedText& after);

}  // namespace ossilar::source
