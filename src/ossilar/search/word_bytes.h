// The bytes of words/words.bin, as the assembler took them into the program. word_table.cc alone reads them.
#pragma once

#include <string_view>

namespace ossilar::search {

std::string_view word_bytes();

}  // namespace ossilar::search
