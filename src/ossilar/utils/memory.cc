#include "ossilar/utils/memory.h"

#include <mimalloc.h>

// Not there in what is linked without it: the tests, the sanitizers' builds.
#pragma weak mi_option_set

namespace ossilar::utils {

void return_memory_at_once() {
  if (mi_option_set != nullptr) mi_option_set(mi_option_decommit_delay, 0);
}

}  // namespace ossilar::utils
