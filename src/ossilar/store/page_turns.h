// Turns at one page among the machines that share a store.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ossilar/utils/task.h"

namespace ossilar::store {

// A turn only spares work: of several drafts of one page at once only one can be committed. What keeps saves
// apart is the write lock, so a turn that cannot be had is no failure.
//
// Thread-safety: any thread. Savers of different pages never wait for each other.
class PageTurns {
 public:
  using Turn = std::shared_ptr<void>;

  PageTurns() = default;
  PageTurns(const PageTurns&) = delete;
  PageTurns& operator=(const PageTurns&) = delete;
  virtual ~PageTurns() = default;

  // Waits for the turn, for `patience` at most. It lasts as long as what is given, or until its holder says
  // nothing for some seconds; null where it was not had. Throws utils::Cancelled.
  virtual Turn take(const std::string& page_id, std::chrono::milliseconds patience,
                    const utils::Task& task) = 0;
};

}  // namespace ossilar::store
