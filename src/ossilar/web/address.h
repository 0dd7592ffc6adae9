// Where the pages of the site lie, relative to its root, and back. The server and the export have the same
// addresses, and every link is relative, so that the site works from a disk and below any path of a server.
//
// Thread-safety: pure functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ossilar/workers/wiki/citations.h"

namespace ossilar::web {

inline constexpr std::string_view kHome = "index.html";
inline constexpr std::string_view kStatePage = "state.html";
inline constexpr std::string_view kSearchPage = "search.html";

// `text` with each byte but letters, digits and "-_.~/" percent-encoded: as a path in a link it is itself.
std::string encoded_path(std::string_view text);
// The same for one value of a query: "/" is encoded too.
std::string encoded_value(std::string_view text);
// Takes percent-encodings back; none for one that is malformed, and for text with a NUL byte or not UTF-8.
std::optional<std::string> decoded(std::string_view text);

// "pages/a/b.html" and "source/a/b.cc.html", as a link has them.
std::string page_address(std::string_view page_id);
std::string source_address(std::string_view path);
// The place of the lines in a source's page: "source/a.cc.html#L10-L20".
std::string lines_address(const workers::wiki::Citation& citation);
std::string lines_fragment(std::int64_t first, std::int64_t last);

// A title as it stands in an address: its letters and digits in lower case, with "-" between words. At most
// 100 bytes; "" for a title without any.
std::string title_slug(std::string_view title);

// What a decoded path names: the id or path below `folder` ("pages/", "source/"), without ".html". None for
// any other path. Whether there is such a page the caller looks up; no file is opened by it.
std::optional<std::string> name_below(std::string_view folder, std::string_view path);

// "../" for each folder that `path` lies in: the way from it to the site's root.
std::string way_to_root(std::string_view path);

// `target`, a relative link on the page of `from` (both paths with '/'), as a path without "." and "..".
// None for one that leads out of the root.
std::optional<std::string> resolved_path(std::string_view from, std::string_view target);

}  // namespace ossilar::web
