// Tells which language a file is written in, by its name and, where the name leaves it open, by its text.
// refresh.cc asks for each file; ctags.cc asks how the symbol tool calls the language.
//
// Thread-safety: every function may be called from any thread. Any path and text are accepted; nothing fails.
#pragma once

#include <string_view>

namespace ossilar::source {

// The language of `path`, such as "C++", or "" when it is not known. A header `.h` is C++ when its text uses
// C++, else C; a file without a known name or ending is what its `#!` line says. `text` may be "" for a file
// that is not read. The view is valid for the life of the program.
std::string_view language_of(std::string_view path, std::string_view text);

// The ending, without its dot, by which the symbol tool knows files of `language`; "" for a language that the
// tool does not know, or that declares nothing a reader would look for, such as Markdown.
std::string_view symbol_ending(std::string_view language);

}  // namespace ossilar::source
