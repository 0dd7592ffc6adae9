// Files that are built into the program: templates, and what browsers load (styles, scripts, the icon).
//
// Thread-safety: constant data, any thread. The views live as long as the program.
#pragma once

#include <iterator>
#include <optional>
#include <string_view>
#include <vector>

namespace ossilar::web {

// The file "templates/page.html", "assets/site.css", ...; none when it was not built in. Those of npm
// (assets/highlight.js, assets/mermaid.js) are there only if npm had installed them before the build.
std::optional<std::string_view> embedded_file(std::string_view name);

// The names of all of them.
std::vector<std::string_view> embedded_names();

}  // namespace ossilar::web
