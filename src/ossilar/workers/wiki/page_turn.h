// Taking turns at one page, among threads and processes.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "ossilar/store/write_lock.h"

namespace ossilar::workers::wiki {

// A page's turn, from its making to its end. It is had as soon as the saver before is done, and not waited
// for beyond `patience`: a saver that never ends must not keep others from saving.
class PageTurn {
 public:
  // `directory` exists. Pages share a fixed number of lock files in it.
  PageTurn(const std::filesystem::path& directory, const std::string& page_id,
           std::chrono::milliseconds patience);
  ~PageTurn();
  PageTurn(const PageTurn&) = delete;
  PageTurn& operator=(const PageTurn&) = delete;

 private:
  store::WriteLock lock_;
  bool taken_ = false;
};

}  // namespace ossilar::workers::wiki
