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

#include "ossilar/mcp/page_watch.h"
#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/mcp/protocol/scheduler.h"
#include "ossilar/mcp/protocol/transport.h"
#include "ossilar/mcp/subscriptions.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/check/wiki_provider.h"

namespace ossilar::mcp {

// One client's session from its first line to its last. It begins with `initialize` and then speaks the
// revision agreed on, or each request names a stateless revision; a request that names one is served so in
// either case.
//
// Thread-safety: receive(), receive_too_long() and finish() belong to one thread; log() may be called from
// any. Answers are written by the threads of the pool, each line whole. The destructor waits for requests
// that run.
class Session {
 public:
  // `provider` and `output` must outlive the session.
  Session(workers::wiki::WikiProvider& provider, LineWriter& output);

  // Handles a line. Returns before a request in it is answered, unless no work is needed for the answer.
  // Waits while too many requests wait (protocol/scheduler.h): so the client that sends them has to wait too.
  void receive(std::string_view line);
  // Answers a line that exceeds the size limit with an error, under the id of its request if that can be
  // found.
  void receive_too_long(const LineTooLong& line);

  // Waits for the requests under way, for `patience` at most; then cancels them and waits two seconds more.
  // False when some have not ended even then. With `abandoned` all are cancelled at once, as nobody reads
  // their answers.
  bool finish(std::chrono::milliseconds patience, bool abandoned);

  // Sends the record to the client, if the session or the request that runs on this thread asked for its
  // level. Blocks while the client does not read.
  void log(const utils::LogRecord& record);

 private:
  // Called once for each message, on any thread: with its answer, or with none when there is to be no answer.
  // A batch counts these calls.
  using Reply = std::function<void(std::optional<Map> message)>;
  struct UnderWay;
  // Who asks, and how.
  struct Speaker {
    Revision revision;
    std::string client;  // the client's name, "" if it gave none
  };

  void take(Message message, const Reply& reply);
  void take_batch(std::vector<Message> batch);
  void take_request(Request request, const Reply& reply);
  void take_notification(const Notification& notification);
  Revision revision_of(const Request& request) const;
  std::optional<Map> answer_at_once(const Request& request, Revision revision);
  Map initialize(const Map& params);
  std::optional<Map> result_of(const Request& request, const Speaker& speaker, utils::Task& task);
  void listen(const Request& request, const utils::Task& task);
  void run_later(Request request, Speaker speaker, const Reply& reply);
  void run(const Request& request, const Speaker& speaker, UnderWay& work, const Reply& reply);
  void cancel(const Map& id);
  void cancel_all();
  Reply write_reply();

  workers::wiki::WikiProvider& provider_;
  LineWriter& output_;
  std::optional<Revision> agreed_;  // by `initialize`; the receiving thread's, as are the next two
  std::string client_;              // its name as `initialize` gave it
  std::size_t line_bytes_ = 0;      // of the line at hand
  std::atomic<int> log_level_;      // of the session, as an index into kLevels of session.cc
  Subscriptions subscriptions_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<UnderWay>> under_way_;  // by the id as JSON; guarded by mutex_
  PageWatch watch_;
  Scheduler scheduler_;  // last: its threads use all members above, so they end first
};

}  // namespace ossilar::mcp
