// The sessions of clients that began with `initialize`, by the id that each got.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ossilar/mcp/http/event_stream.h"
#include "ossilar/mcp/service.h"
#include "ossilar/mcp/session.h"

namespace ossilar::mcp::http {

using Clock = std::chrono::steady_clock;

// A session that is used by nobody for this long is ended: its client is gone without a word.
inline constexpr std::chrono::minutes kIdleSession{30};
inline constexpr std::size_t kMostSessions = 256;
// When there are as many, the one that was not used for longest makes room, if it was so for this long.
inline constexpr std::chrono::minutes kLeastUnused{1};

// One client's session with its streams.
//
// Thread-safety: every member may be called from any thread. Session::receive() belongs to one thread at a
// time: call it with receiving() locked.
class Client {
 public:
  Client(Service& service, std::string id);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  const std::string& id() const { return id_; }
  Session& session() { return *session_; }
  std::mutex& receiving() { return receiving_; }
  // What answers no request goes here: the stream of a GET.
  const std::shared_ptr<EventStream>& notifications() const { return notifications_; }
  // A stream for the answer to a POST. The last kMostStreams of a session are kept, to be read on.
  std::shared_ptr<EventStream> new_stream();
  // The stream of this name, null if it is not kept.
  std::shared_ptr<EventStream> stream(std::uint64_t name) const;
  // Cancels what is under way and ends all streams.
  void end();

  void touch(Clock::time_point now);
  // For how long nobody used it; none while somebody reads its notifications.
  Clock::duration unused(Clock::time_point now) const;

 private:
  static constexpr std::size_t kMostStreams = 32;

  const std::string id_;
  const std::shared_ptr<EventStream> notifications_;
  const std::shared_ptr<Session> session_;
  std::mutex receiving_;
  mutable std::mutex mutex_;
  std::deque<std::shared_ptr<EventStream>> streams_;  // guarded by mutex_, as are the next two
  std::uint64_t last_stream_ = 0;
  Clock::time_point used_;
};

// Thread-safety: every member may be called from any thread.
class Clients {
 public:
  explicit Clients(Service& service) : service_(service) {}

  // A new session, or null when there are too many.
  std::shared_ptr<Client> begin(Clock::time_point now);
  // That of this id, null if there is none (any more).
  std::shared_ptr<Client> find(const std::string& id, Clock::time_point now);
  // Ends it; false if there is none.
  bool end(const std::string& id);
  void end_idle(Clock::time_point now);
  void end_all();
  // Sends each stream of notifications a comment.
  void beat();
  std::size_t size() const;

 private:
  std::vector<std::shared_ptr<Client>> all() const;
  void end_longest_unused(Clock::time_point now);

  Service& service_;
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Client>> clients_;  // guarded by mutex_
};

}  // namespace ossilar::mcp::http
