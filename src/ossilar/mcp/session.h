// Binds messages to what answers them: which revision a request speaks, which method it names, on which
// thread it runs, and how it is cancelled, watched and answered. server.cc makes a session and feeds it
// lines.
//
// Failure: every request gets one answer, an error if need be, unless it was cancelled; one that listens gets
// it at its end. A line that is no message is answered with an error too.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/outlet.h"
#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/mcp/protocol/transport.h"
#include "ossilar/mcp/service.h"
#include "ossilar/mcp/subscriptions.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/task.h"

namespace ossilar::mcp {

// One client's session from its first line to its last. It begins with `initialize` and then speaks the
// revision agreed on, or each request names a stateless revision; a request that names one is served so in
// either case.
//
// Thread-safety: receive(), receive_too_long() and finish() belong to one thread; log() may be called from
// any. Answers are written by the threads of the service, each line whole. Lifetime: requests that run keep
// the session.
class Session : public std::enable_shared_from_this<Session> {
 public:
  // `service` must outlive the session. Messages that answer no request go to `output`, and answers too where
  // receive() is given no other place.
  static std::shared_ptr<Session> begin(Service& service, std::shared_ptr<Outlet> output);

  // Handles a line. Returns before a request in it is answered, unless no work is needed for the answer.
  // Waits while too many requests wait (protocol/scheduler.h): so the client that sends them has to wait too.
  void receive(std::string_view line);
  // The same for a line that was read, of `bytes` bytes. Answers, and what is told of the requests meanwhile,
  // go to `answers`; it is let go of once nothing more will come.
  void receive(LineContent content, std::size_t bytes, const std::shared_ptr<Outlet>& answers);
  // Answers a line that exceeds the size limit with an error, under the id of its request if that can be
  // found.
  void receive_too_long(const LineTooLong& line);

  // Waits for the requests under way, for `patience` at most; then cancels them and waits two seconds more.
  // False when some have not ended even then. With `abandoned` all are cancelled at once, as nobody reads
  // their answers.
  bool finish(std::chrono::milliseconds patience, bool abandoned);
  // Cancels all requests under way.
  void cancel_all();
  // Ends those that listen, with their answer or without one.
  void end_listeners() { subscriptions_.finish(); }
  void drop_listeners() { subscriptions_.drop(); }

  // Notifies the subscribers of the page; see Subscriptions.
  void page_changed(const std::string& page_id, bool listed);

  // Sends the record to the client, if the session or the request that runs on this thread asked for its
  // level. Blocks while the client does not read.
  void log(const utils::LogRecord& record);
  // Sends the record to the client of the request that runs on this thread, if there is one and it asked for
  // the record's level: for a process with many sessions, none of which is to hear of the others.
  static void log_to_request(const utils::LogRecord& record);

 private:
  Session(Service& service, std::shared_ptr<Outlet> output);

  // Called once for each message, on any thread: with its answer, or with none when there is to be no answer.
  // A batch counts these calls.
  using Reply = std::function<void(std::optional<Map> message)>;
  struct UnderWay;
  // Who asks, and how.
  struct Speaker {
    Revision revision;
    std::string client;  // the client's name, "" if it gave none
    std::shared_ptr<Outlet> answers;
  };

  void take(Message message, const Reply& reply, const std::shared_ptr<Outlet>& answers);
  void take_batch(std::vector<Message> batch, const std::shared_ptr<Outlet>& answers);
  void take_request(Request request, const Reply& reply, const std::shared_ptr<Outlet>& answers);
  void take_notification(const Notification& notification);
  Revision revision_of(const Request& request) const;
  std::optional<Map> answer_at_once(const Request& request, Revision revision);
  Map initialize(const Map& params);
  std::optional<Map> result_of(const Request& request, const Speaker& speaker, utils::Task& task);
  void listen(const Request& request, const Speaker& speaker, const utils::Task& task);
  void run_later(Request request, Speaker speaker, const Reply& reply);
  void run(const Request& request, const Speaker& speaker, UnderWay& work, const Reply& reply);
  void cancel(const Map& id);

  Service& service_;
  const std::shared_ptr<Outlet> output_;
  const std::string name_;          // by which the claims of this session are told from others'
  std::optional<Revision> agreed_;  // by `initialize`; the receiving thread's, as are the next two
  std::string client_;              // its name as `initialize` gave it
  std::size_t line_bytes_ = 0;      // of the line at hand
  std::atomic<int> log_level_;      // of the session, as an index into kLevels of session.cc
  Subscriptions subscriptions_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<UnderWay>> under_way_;  // by the id as JSON; guarded by mutex_
};

}  // namespace ossilar::mcp
