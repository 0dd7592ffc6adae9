// JSON-RPC 2.0 messages as the Model Context Protocol narrows them: an id is a string or an integer, and an
// error about a message whose id is not known carries none.
//
// session.cc reads lines with this and writes its answers; subscriptions.cc writes notifications. What
// answers a request (tools, resources, prompts, completions) only throws ProtocolError.
//
// Thread-safety: no state is kept, so every function may be called from any thread. A line that is no message
// is a Malformed and never an exception.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ossilar/utils/error.h"
#include "ossilar/utils/json.h"

namespace ossilar::mcp {

// Error codes: the first five are JSON-RPC's (its section 5.1), the rest the protocol's.
namespace error_code {
inline constexpr int kParse = -32700;
inline constexpr int kInvalidRequest = -32600;
inline constexpr int kMethodNotFound = -32601;
inline constexpr int kInvalidParams = -32602;
inline constexpr int kInternal = -32603;
inline constexpr int kResourceNotFound = -32002;    // before 2026-07-28; kInvalidParams since
inline constexpr int kUnsupportedVersion = -32022;  // since 2026-07-28
}  // namespace error_code

// Thrown when a request is to be answered with a JSON-RPC error. A tool's own failure is a result instead.
// `data` is sent along unless it is null.
class ProtocolError : public utils::Error {
 public:
  ProtocolError(int code, const std::string& message, Map data = {},
                utils::Place place = utils::Place::current())
      : Error(message, place), code_(code), data_(std::move(data)) {}
  int code() const { return code_; }
  const Map& data() const { return data_; }

 private:
  int code_;
  Map data_;
};

struct Request {
  Map id;  // a string or an integer
  std::string method;
  Map params;  // an object, empty when there were none
};
struct Notification {
  std::string method;
  Map params;  // an object, empty when there were none
};
// An answer to a request. This server sends no requests, so it ignores answers and keeps nothing of them.
struct Response {};
// What is neither of these, to be answered with an error. `id` is null when it is not known.
struct Malformed {
  Map id;
  int code = error_code::kInvalidRequest;
  std::string message;
};

using Message = std::variant<Request, Notification, Response, Malformed>;

// A short request may have a long answer, and all answers of a batch stay in memory until its last one is
// there; without a limit one line could ask for any amount. A larger one would only hold more memory, a
// smaller one might refuse a client that batches in earnest.
inline constexpr std::size_t kMostInBatch = 100;

// The one message of a line, or the messages of a batch in their order.
using LineContent = std::variant<Message, std::vector<Message>>;

// Reads a line, which has no line feed. Time and memory are linear in its length, whatever it holds. A batch
// over the limit is one Malformed without an id.
LineContent read_line(std::string_view line);

// The id of the request in `line`, which need not be valid JSON; null when none is found. With it the sender
// gets an error for its request instead of waiting for an answer that never comes.
//
// The second is for a line that was too long to keep: of it only the beginning and the end are known.
Map id_in(std::string_view line);
Map id_in_cut(std::string_view beginning, std::string_view end);

// Messages as compact JSON on one line, without a line feed. A null `id` is left out.
std::string result_line(const Map& id, const Map& result);
std::string error_line(const Map& id, int code, const std::string& message, const Map& data = {});
std::string notification_line(const std::string& method, const Map& params);

// Any message, or list of messages, on one line. Bytes that are not UTF-8 become U+FFFD.
std::string line_of(const Map& message);

// The same as values: the answers of a batch are collected and sent as one list.
Map result_message(const Map& id, const Map& result);
Map error_message(const Map& id, int code, const std::string& message, const Map& data = {});

}  // namespace ossilar::mcp
