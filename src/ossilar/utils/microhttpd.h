// What both servers (web/, mcp/http) ask of libmicrohttpd in the same way. Only they include this, and link
// it.
//
// Thread-safety: as the library's.
#pragma once

#include <microhttpd.h>

#include <memory>
#include <string>

namespace ossilar::utils {

struct ResponseFreed {
  void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using OwnedResponse = std::unique_ptr<MHD_Response, ResponseFreed>;

// The value of a header (MHD_HEADER_KIND) or of an argument of the query (MHD_GET_ARGUMENT_KIND), "" without.
inline std::string value_of(MHD_Connection* connection, MHD_ValueKind kind, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, kind, name);
  return value == nullptr ? "" : value;
}

}  // namespace ossilar::utils
