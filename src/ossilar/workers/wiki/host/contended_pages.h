// Turns at the pages that savers of several machines contend for. Wiki has them over a store that machines
// share.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "ossilar/store/page_turns.h"

namespace ossilar::workers::wiki {

// A turn costs a save two round trips to the server, so only those ask for one who have reason to: a page
// counts as contended for a while after a save of this process lost a race for it.
//
// Thread-safety: any thread.
class ContendedPages {
 public:
  // Null: there are no turns.
  explicit ContendedPages(std::unique_ptr<store::PageTurns> turns) : turns_(std::move(turns)) {}

  // A save of the page lost a race.
  void note_race(const std::string& page_id);
  // The turn at a contended page; null at any other, and where none was had.
  store::PageTurns::Turn take_turn(const std::string& page_id, std::chrono::milliseconds patience,
                                   const utils::Task& task);

 private:
  using Clock = std::chrono::steady_clock;
  bool is_contended(const std::string& page_id);

  const std::unique_ptr<store::PageTurns> turns_;
  std::mutex mutex_;
  std::map<std::string, Clock::time_point> races_;  // by page the last one; guarded by mutex_
};

}  // namespace ossilar::workers::wiki
