// What a lock says that cannot be had.
#pragma once

#include <string>

#include "ossilar/store/write_lock.h"

namespace ossilar::testing {

// The message; "" if the lock could be had, which is free again then.
inline std::string busy_message(store::WriteLock& lock, bool wait) {
  try {
    lock.acquire(wait);
  } catch (const store::LockBusy& error) {
    return error.what();
  }
  lock.release();
  return "";
}

}  // namespace ossilar::testing
