// JSON-RPC 2.0 messages as the Model Context Protocol narrows them: an id is a string or an integer, and an
// error about a message whose id is not known carries none.
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

// Error codes of JSON-RPC and of the protocol.
namespace error_code {
inline constexpr int kParse = -32700;
inline constexpr int kInvalidRequest = -32600;
inline constexpr int kMethodNotFound = -32601;
inline constexpr int kInvalidParams = -32602;
inline constexpr int kInternal = -32603;
inline constexpr int kResourceNotFound = -32002;    // before 2026-07-28; kInvalidParams since
inline constexpr int kUnsupportedVersion = -32022;  // since 2026-07-28
}  // namespace error_code

// The failure of a request that is the protocol's to answer. `data` goes along when it is not null.
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
  Map params;
};
// An answer to a request; as this server sends none, there is nothing to do with it.
struct Response {};
// A message that is none. `id` is null when it cannot be told.
struct Malformed {
  Map id;
  int code = error_code::kInvalidRequest;
  std::string message;
};

using Message = std::variant<Request, Notification, Response, Malformed>;

// Each message of a batch may be answered by more than it says itself.
inline constexpr std::size_t kMostInBatch = 100;

// A line's one message, or the list of those that a batch holds.
using LineContent = std::variant<Message, std::vector<Message>>;

// Reads a line. Time and memory are linear in it, whatever it holds.
LineContent read_line(std::string_view line);

// The id of the request that `line` holds, as far as it can be made out; null when it cannot. Who waits for
// an answer is then told, whatever is wrong with the rest. The second is for a line of which only the
// beginning and the end are known.
Map id_in(std::string_view line);
Map id_in_cut(std::string_view beginning, std::string_view end);

// Messages as compact JSON on one line.
std::string result_line(const Map& id, const Map& result);
std::string error_line(const Map& id, int code, const std::string& message, const Map& data = {});
std::string notification_line(const std::string& method, const Map& params);

// Any message, or list of messages, on one line.
std::string line_of(const Map& message);

// The same as values, for batches.
Map result_message(const Map& id, const Map& result);
Map error_message(const Map& id, int code, const std::string& message, const Map& data = {});

}  // namespace ossilar::mcp
