// Counts what a server does, for /metrics in the text format of Prometheus.
// https://prometheus.io/docs/instrumenting/exposition_formats/
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "ossilar/mcp/service.h"

namespace ossilar::mcp::http {

// How often something took how long.
class Durations {
 public:
  void add(std::chrono::steady_clock::duration took);
  // The lines of a histogram of this name, in seconds.
  std::string text(std::string_view name, std::string_view help) const;

 private:
  // From what a commit takes on a fast disk to the longest wait for the lock that is usual.
  static constexpr std::array kBounds{0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                                      0.25,  0.5,    1.0,   2.5,  5.0,   10.0, 30.0};
  std::array<std::uint64_t, kBounds.size()> counts_{};  // of those up to each bound
  std::uint64_t count_ = 0;
  double sum_ = 0;
};

// Thread-safety: every member may be called from any thread.
class Metrics final : public Observer {
 public:
  utils::Task::Probe probe(const Request& request) override;
  void ended(const Request& request, const std::optional<Map>& message,
             std::chrono::steady_clock::duration took) override;

  // Everything that was counted, and the numbers at present.
  struct Present {
    std::size_t sessions = 0;
    std::size_t requests = 0;  // in flight
  };
  std::string text(const Present& present) const;

 private:
  struct Save;
  void stage(Save& save, std::string_view name);

  mutable std::mutex mutex_;
  std::map<std::string, std::uint64_t> calls_;  // by labels; guarded by mutex_, as all below
  std::map<std::string, std::uint64_t> saves_;  // by outcome
  std::uint64_t discarded_ = 0;
  Durations lock_wait_;
  Durations lock_hold_;
  Durations searches_;
};

}  // namespace ossilar::mcp::http
