// Work for several threads at once.
#pragma once

#include <cstddef>
#include <thread>
#include <vector>

namespace ossilar::testing {

// Runs `work(i)` for each i below `count`, each in a thread of its own, and waits for them all.
template <class Work>
void in_threads(std::size_t count, Work work) {
  std::vector<std::thread> threads;
  threads.reserve(count);
  for (std::size_t i = 0; i < count; ++i) threads.emplace_back([&work, i] { work(i); });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace ossilar::testing
