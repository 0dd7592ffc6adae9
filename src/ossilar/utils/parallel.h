// Work that falls into many like parts, done on all cores.
#pragma once

#include <cstddef>
#include <functional>

namespace ossilar::utils {

// Calls work(i) once for each i below `count`, in any order and from several threads at once, the caller's
// among them, and returns when all calls have. A call that throws ends it: no further part is begun, and the
// first failure is thrown here.
//
// Thread-safety: any thread may call. `work` must withstand calls from several threads; what it notes for its
// own thread alone, such as utils::degraded(), does not reach the caller.
void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work);

}  // namespace ossilar::utils
