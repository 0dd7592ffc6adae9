// A stream of server-sent events that outlives the connections that read it: a client whose connection broke
// comes back with the id of the last event that it saw, and goes on from there.
//
// An event's id is "STREAM-NUMBER". https://html.spec.whatwg.org/multipage/server-sent-events.html
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace ossilar::mcp::http {

// Thread-safety: every member may be called from any thread. Nothing that writes waits for a reader: what a
// slow or absent one leaves unread is dropped, the oldest first, beyond the limits.
class EventStream {
 public:
  explicit EventStream(std::uint64_t name) : name_(name) {}
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;

  std::uint64_t name() const { return name_; }

  // Adds a message, JSON without a line feed. "" makes an event without data, which gives the client an id to
  // come back with.
  void push(std::string_view message);
  // Sends the reader a comment, which clients ignore: a write finds out who is gone.
  void beat();
  // Nothing more will come: the reader is at the end once it has read what there is.
  void close();
  bool is_closed() const;
  bool has_reader() const;

  // Lets somebody read: what comes after the event `after` (0: all that is kept), without it what the reader
  // before was not given. Another reader is at its end
  // from then on. `wake` is called when there is something after read() gave none, under the stream's lock:
  // it must only hand the news on. Gives the reader's ticket.
  std::uint64_t attach(std::optional<std::uint64_t> after, std::function<void()> wake);
  void detach(std::uint64_t ticket);

  enum class Read { some, none, end };
  // Takes the next bytes for the reader: their number goes to `taken`. When there are none, `sleep` is called
  // under the stream's lock, so that a wake cannot come before it.
  Read read(std::uint64_t ticket, char* buffer, std::size_t size, std::size_t& taken,
            const std::function<void()>& sleep);

 private:
  struct Event {
    std::uint64_t number;
    std::string text;  // as it is sent
  };
  // A client that reads nothing costs no more than this. The newest event is kept whatever its size, as it
  // may be a long page.
  static constexpr std::size_t kMostEvents = 256;
  static constexpr std::size_t kMostBytes = std::size_t{1024} * 1024;

  void fill();
  void wake_reader();

  const std::uint64_t name_;
  mutable std::mutex mutex_;
  std::deque<Event> events_;  // guarded by mutex_, as is all below
  std::size_t bytes_ = 0;
  std::uint64_t last_ = 0;      // number of the newest event
  std::uint64_t ticket_ = 0;    // of the reader at present
  std::uint64_t given_ = 0;     // the last event that went into pending_
  std::string pending_;         // what the reader takes now
  std::size_t taken_ = 0;       // so much of it is taken
  std::function<void()> wake_;  // empty without a reader
  bool is_asleep_ = false;
  bool is_closed_ = false;
};

struct EventId {
  std::uint64_t stream = 0;
  std::uint64_t event = 0;
};
// Reads "STREAM-NUMBER"; none for anything else.
std::optional<EventId> parse_event_id(std::string_view text);

}  // namespace ossilar::mcp::http
