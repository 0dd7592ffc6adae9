#include "ossilar/mcp/http/listening.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/text.h"

namespace ossilar::mcp::http {
namespace {

constexpr std::size_t kShortestToken = 16;
constexpr std::size_t kLongestToken = 1024;

[[noreturn]] void refuse(std::string_view text) {
  throw utils::ConfigError("--http takes ADDR:PORT, as 127.0.0.1:8765; '" + utils::printable(text) +
                           "' is neither an IPv4 address nor a port");
}

std::uint16_t port_in(std::string_view text, std::string_view all) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size()) refuse(all);
  return port;
}

in_addr address_in(std::string_view text, std::string_view all) {
  in_addr address{};
  const std::string name = text == "localhost" ? "127.0.0.1" : std::string(text);
  if (inet_pton(AF_INET, name.c_str(), &address) != 1) refuse(all);
  return address;
}

}  // namespace

std::string Listening::text() const {
  char name[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, name, sizeof name);
  return std::string(name) + ":" + std::to_string(port);
}

Listening parse_listening(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon != text.npos) {
    return {.address = address_in(text.substr(0, colon), text),
            .port = port_in(text.substr(colon + 1), text)};
  }
  const bool is_port =
      !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (is_port) return {.address = address_in("localhost", text), .port = port_in(text, text)};
  return {.address = address_in(text.empty() ? "localhost" : text, text), .port = kDefaultPort};
}

std::string read_token(const std::filesystem::path& file) {
  const std::string name = file.string();
  const utils::UniqueFd opened(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status = {};
  if (!opened || fstat(opened.get(), &status) != 0)
    throw utils::ConfigError(utils::IoError("cannot open " + name, errno).what());
  if (!S_ISREG(status.st_mode)) throw utils::ConfigError(name + " is not a regular file");
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw utils::ConfigError("others may read the token in " + name +
                             "; make it yours alone with: chmod 600 " + name);
  }
  const auto text = utils::read_at_most(opened.get(), kLongestToken, name);
  std::string token = text ? std::string(utils::strip(*text)) : "";
  const bool is_plain = std::all_of(token.begin(), token.end(), [](char c) { return c > ' ' && c < '\x7f'; });
  if (!text || token.size() < kShortestToken || !is_plain) {
    throw utils::ConfigError(name +
                             " must hold a token: one line of 16 to 1024 characters without blanks, such "
                             "as one made with: openssl rand -hex 32");
  }
  return token;
}

}  // namespace ossilar::mcp::http
