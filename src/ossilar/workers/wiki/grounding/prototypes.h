// The functions that a C or C++ header declares without a body. The symbol tool names what has one; of an
// interface, that is nothing.
//
// Thread-safety: a function without state; any thread may call. Failures: none; what does not look like a
// declaration is left out.
#pragma once

#include <string_view>
#include <vector>

#include "ossilar/workers/wiki/grounding/public_symbols.h"

namespace ossilar::workers::wiki {

// In the order of the lines; those below `private:` and `protected:` are not public.
std::vector<NamedSymbol> prototypes_in(const std::vector<std::string_view>& lines);

}  // namespace ossilar::workers::wiki
