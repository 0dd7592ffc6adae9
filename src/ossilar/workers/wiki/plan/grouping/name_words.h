// The words that the names of files and symbols are made of.
//
// Thread-safety: no state is kept, so any thread may call these. None fails.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ossilar::workers::wiki {

// Where each word of `name` ends, in order, the last at its size: before a separator, before the capital that
// begins the next word ("Base64|Codec"), before the digits at its end ("test|12"). None for an empty name.
std::vector<std::size_t> word_ends(std::string_view name);

// The words of `name` in lower case, without separators: "ngx_http_Proxy2" gives ngx, http, proxy, 2.
std::vector<std::string> words_of(std::string_view name);

}  // namespace ossilar::workers::wiki
