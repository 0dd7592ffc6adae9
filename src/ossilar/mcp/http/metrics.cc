// What a save does is read from the stages that it announces (host/orchestrator.cc), so nothing below this
// room counts anything. A stage that is renamed there makes its numbers stand still: server_test.cc would
// fail.
#include "ossilar/mcp/http/metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>

namespace ossilar::mcp::http {
namespace {

constexpr std::string_view kWaiting = "waiting for the write lock";
constexpr std::string_view kHolding = "holding the write lock";
constexpr std::string_view kCommitting = "committing the rows";
constexpr std::string_view kReleased = "answering";

std::string tool_of(const Request& request) {
  return request.method == "tools/call" ? utils::string_member(request.params, "name") : "";
}

bool is_save(const std::string& tool) {
  return tool == "save_page" || tool == "restore_page" || tool == "confirm_page";
}

std::string outcome_of(const std::optional<Map>& message) {
  if (!message) return "cancelled";
  if (message->contains("error")) return "failed";
  return utils::truthy(utils::member(message->at("result"), "isError")) ? "refused" : "done";
}

// Names are of tools that exist, or this: what a client sends must not become a series of its own.
std::string known_name(const std::string& tool, const std::optional<Map>& message) {
  return message && message->contains("error") ? "other" : tool;
}

std::string header(std::string_view name, std::string_view help, std::string_view type) {
  return fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
}

std::string counted(std::string_view name, std::string_view help,
                    const std::map<std::string, std::uint64_t>& counts) {
  std::string text = header(name, help, "counter");
  for (const auto& [labels, count] : counts) text += fmt::format("{}{{{}}} {}\n", name, labels, count);
  return text;
}

std::string number(std::string_view name, std::string_view help, std::string_view type, std::uint64_t value) {
  return header(name, help, type) + fmt::format("{} {}\n", name, value);
}

}  // namespace

void Durations::add(std::chrono::steady_clock::duration took) {
  const double seconds = std::chrono::duration<double>(took).count();
  ++count_;
  sum_ += seconds;
  for (std::size_t i = 0; i < kBounds.size(); ++i)
    if (seconds <= kBounds.at(i)) ++counts_.at(i);
}

std::string Durations::text(std::string_view name, std::string_view help) const {
  std::string text = header(name, help, "histogram");
  for (std::size_t i = 0; i < kBounds.size(); ++i)
    text += fmt::format("{}_bucket{{le=\"{}\"}} {}\n", name, kBounds.at(i), counts_.at(i));
  return text + fmt::format("{}_bucket{{le=\"+Inf\"}} {}\n{}_sum {}\n{}_count {}\n", name, count_, name, sum_,
                            name, count_);
}

// Where one save stands; its working thread's alone.
struct Metrics::Save {
  std::chrono::steady_clock::time_point since;
  bool is_holding = false;
  bool is_committing = false;
};

utils::Task::Probe Metrics::probe(const Request& request) {
  if (tool_of(request).empty()) return {};
  return [this, save = std::make_shared<Save>()](std::string_view name) { stage(*save, name); };
}

void Metrics::stage(Save& save, std::string_view name) {
  const auto now = std::chrono::steady_clock::now();
  if (name == kCommitting) save.is_committing = true;
  if (name != kWaiting && name != kHolding && name != kReleased) return;
  const auto took = now - std::exchange(save.since, now);
  const std::lock_guard lock(mutex_);
  if (name == kHolding) {
    lock_wait_.add(took);
    save.is_holding = true;
    save.is_committing = false;
  }
  if (name == kReleased && std::exchange(save.is_holding, false)) {
    lock_hold_.add(took);
    if (!save.is_committing) ++discarded_;
  }
}

void Metrics::ended(const Request& request, const std::optional<Map>& message,
                    std::chrono::steady_clock::duration took) {
  const std::string tool = tool_of(request);
  if (tool.empty()) return;
  const std::string outcome = outcome_of(message);
  const std::lock_guard lock(mutex_);
  ++calls_[fmt::format(R"(tool="{}",outcome="{}")", known_name(tool, message), outcome)];
  if (is_save(tool)) ++saves_[fmt::format("outcome=\"{}\"", outcome == "done" ? "saved" : outcome)];
  if (tool == "search_wiki") searches_.add(took);
}

std::string Metrics::text(const Present& present) const {
  const std::lock_guard lock(mutex_);
  return counted("ossilar_calls_total", "Calls of tools by outcome.", calls_) +
         counted("ossilar_saves_total", "Saves, restorations and confirmations by outcome.", saves_) +
         number("ossilar_drafts_discarded_total", "Drafts that were made and not committed.", "counter",
                discarded_) +
         lock_wait_.text("ossilar_lock_wait_seconds", "Waits for the write lock.") +
         lock_hold_.text("ossilar_lock_hold_seconds", "How long the write lock was held.") +
         searches_.text("ossilar_search_seconds", "Searches.") +
         number("ossilar_sessions", "Sessions that are open.", "gauge", present.sessions) +
         number("ossilar_requests_in_flight", "Requests that wait for their answer.", "gauge",
                present.requests);
}

}  // namespace ossilar::mcp::http
