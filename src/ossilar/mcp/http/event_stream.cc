#include "ossilar/mcp/http/event_stream.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace ossilar::mcp::http {
namespace {

std::optional<std::uint64_t> number_in(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

std::optional<EventId> parse_event_id(std::string_view text) {
  const std::size_t dash = text.find('-');
  if (dash == text.npos) return std::nullopt;
  const auto stream = number_in(text.substr(0, dash));
  const auto event = number_in(text.substr(dash + 1));
  if (!stream || !event) return std::nullopt;
  return EventId{*stream, *event};
}

void EventStream::push(std::string_view message) {
  const std::lock_guard lock(mutex_);
  if (is_closed_) return;
  ++last_;
  Event event{last_, "id: " + std::to_string(name_) + "-" + std::to_string(last_) + "\n"};
  if (message.empty()) event.text += "retry: 1000\n";
  event.text += "data: ";
  event.text += message;
  event.text += "\n\n";
  bytes_ += event.text.size();
  events_.push_back(std::move(event));
  while (events_.size() > kMostEvents || (bytes_ > kMostBytes && events_.size() > 1)) {
    bytes_ -= events_.front().text.size();
    events_.pop_front();
  }
  wake_reader();
}

void EventStream::beat() {
  const std::lock_guard lock(mutex_);
  if (!wake_ || is_closed_ || !pending_.empty()) return;
  pending_ = ": still here\n\n";
  wake_reader();
}

void EventStream::close() {
  const std::lock_guard lock(mutex_);
  is_closed_ = true;
  wake_reader();
}

bool EventStream::is_closed() const {
  const std::lock_guard lock(mutex_);
  return is_closed_;
}

bool EventStream::has_reader() const {
  const std::lock_guard lock(mutex_);
  return static_cast<bool>(wake_);
}

std::uint64_t EventStream::attach(std::optional<std::uint64_t> after, std::function<void()> wake) {
  const std::lock_guard lock(mutex_);
  ++ticket_;
  wake_reader();  // the former reader, which finds itself at its end
  wake_ = std::move(wake);
  given_ = after.value_or(given_);
  pending_.clear();
  taken_ = 0;
  return ticket_;
}

void EventStream::detach(std::uint64_t ticket) {
  const std::lock_guard lock(mutex_);
  if (ticket != ticket_) return;
  wake_ = nullptr;
  is_asleep_ = false;
}

EventStream::Read EventStream::read(std::uint64_t ticket, char* buffer, std::size_t size, std::size_t& taken,
                                    const std::function<void()>& sleep) {
  const std::lock_guard lock(mutex_);
  taken = 0;
  if (ticket != ticket_) return Read::end;
  if (pending_.empty()) fill();
  if (pending_.empty()) {
    if (is_closed_) return Read::end;
    is_asleep_ = true;
    sleep();
    return Read::none;
  }
  taken = std::min(size, pending_.size() - taken_);
  std::copy_n(pending_.data() + taken_, taken, buffer);
  taken_ += taken;
  if (taken_ == pending_.size()) {
    pending_.clear();
    taken_ = 0;
  }
  return Read::some;
}

// The next event that the reader does not have. Events that were dropped meanwhile are passed over.
void EventStream::fill() {
  const auto next = std::find_if(events_.begin(), events_.end(),
                                 [this](const Event& event) { return event.number > given_; });
  if (next == events_.end()) return;
  pending_ = next->text;
  given_ = next->number;
}

void EventStream::wake_reader() {
  if (std::exchange(is_asleep_, false) && wake_) wake_();
}

}  // namespace ossilar::mcp::http
