// Where a server listens and who may use it, as the command line says it.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace ossilar::mcp::http {

struct Listening {
  in_addr address{};  // IPv4, in network order
  std::uint16_t port = 0;
  bool is_loopback() const { return (ntohl(address.s_addr) >> 24U) == 127; }
  std::string text() const;  // "127.0.0.1:8765"
};

// Reads "ADDR:PORT", "ADDR" or "PORT"; "" is kDefaultPort on this machine alone. ADDR is an IPv4 address or
// "localhost", and port 0 is any that is free. Throws utils::ConfigError.
inline constexpr std::uint16_t kDefaultPort = 8765;
Listening parse_listening(std::string_view text);

// The token in the file, without white space around it. Throws utils::ConfigError for a token that others of
// this machine may read, or that is shorter than 16 characters or more than a line.
std::string read_token(const std::filesystem::path& file);

}  // namespace ossilar::mcp::http
