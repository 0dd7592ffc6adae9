#include "ossilar/workers/wiki/host/contended_pages.h"

namespace ossilar::workers::wiki {
namespace {

// Agents who write sections of one page save it every few minutes at most, and in bursts.
constexpr std::chrono::seconds kContendedFor(60);

}  // namespace

void ContendedPages::note_race(const std::string& page_id) {
  const std::lock_guard lock(mutex_);
  const auto now = Clock::now();
  std::erase_if(races_, [&](const auto& race) { return now - race.second > kContendedFor; });
  races_[page_id] = now;
}

bool ContendedPages::is_contended(const std::string& page_id) {
  const std::lock_guard lock(mutex_);
  const auto race = races_.find(page_id);
  return race != races_.end() && Clock::now() - race->second <= kContendedFor;
}

store::PageTurns::Turn ContendedPages::take_turn(const std::string& page_id,
                                                 std::chrono::milliseconds patience,
                                                 const utils::Task& task) {
  if (!turns_ || !is_contended(page_id)) return nullptr;
  return turns_->take(page_id, patience, task);
}

}  // namespace ossilar::workers::wiki
