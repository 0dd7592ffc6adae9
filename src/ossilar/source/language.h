// Which language a file is written in, told by its name and, where the name leaves it open, its first lines.
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <string_view>

namespace ossilar::source {

// The language of `path`, such as "C++", or "" when it is not known. A header `.h` is C++ when its text uses
// C++, else C; a file without a known ending is what its `#!` line says. The view lives forever.
std::string_view language_of(std::string_view path, std::string_view text);

// The ending, without its dot, by which the symbol tool knows files of `language`; "" for a language without
// symbols worth having.
std::string_view symbol_ending(std::string_view language);

}  // namespace ossilar::source
