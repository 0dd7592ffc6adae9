// Whether a request over HTTP is meant for this very server. web/ and mcp/http ask it.
#pragma once

#include <cstdint>
#include <string_view>

namespace ossilar::utils {

// Whether the Host header names this server: its own address, or the name of this machine for itself. A page
// of another site can make a name of its own lead here; then it would read the wiki by that name.
//
// Thread-safety: any thread may call it.
bool is_own_host(std::string_view host, std::uint16_t port);

}  // namespace ossilar::utils
