// What a fuzz target says when a law is broken.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ossilar/utils/text.h"

namespace ossilar::fuzz {

// The input as UTF-8 text; other bytes are replaced, as no other text comes this far.
inline std::string text_of(const std::uint8_t* data, std::size_t size) {
  return utils::valid_utf8(std::string_view(reinterpret_cast<const char*>(data), size));
}

// Ends the run, so that the fuzzer keeps the input.
inline void require(bool holds, const char* law, const std::string& details = "") {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n%s\n", law, details.c_str());
  std::abort();
}

}  // namespace ossilar::fuzz
