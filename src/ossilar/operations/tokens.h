// How the budgets of operations are counted.
#pragma once

#include <cstddef>

namespace ossilar::operations {

// Tokens are counted as four bytes each: an estimate that holds for code within a third or so.
inline constexpr std::size_t kBytesOfToken = 4;

}  // namespace ossilar::operations
