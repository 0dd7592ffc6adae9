// What the body of a POST asks, and how it has to be served. Apart from sockets, as gate.h.
//
// Thread-safety: no state; any thread may call these.
#pragma once

#include <optional>
#include <string>

#include "ossilar/mcp/http/gate.h"
#include "ossilar/mcp/protocol/message.h"

namespace ossilar::mcp::http {

// `begins`: it opens a session. `belongs`: it is of one. `stands_alone`: its revision has no sessions.
enum class Kind { begins, belongs, stands_alone };

Kind kind_of(const LineContent& content, const Head& head);

// Whether something in it is to be answered.
bool wants_answer(const LineContent& content);

// Why a request that stands alone does not agree with its headers, as a JSON-RPC error; none if it does. The
// headers repeat what those between client and server must know, who do not read the body.
std::optional<std::string> disagreement(const LineContent& content, const Head& head);

// Whether the answer is an error.
bool is_error(const std::string& document);

// The status of an answer that is one document. A request that failed is still answered: its client looks for
// the error in the body. But one that could not be read, or that names what is not there, fails for all who
// look on.
int status_of(const std::string& document, Kind kind);

}  // namespace ossilar::mcp::http
