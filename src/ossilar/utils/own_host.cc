#include "ossilar/utils/own_host.h"

#include <string>

#include "ossilar/utils/text.h"

namespace ossilar::utils {

bool is_own_host(std::string_view host, std::uint16_t port) {
  const std::string ending = ":" + std::to_string(port);
  const std::string name = lower_case(host);
  return name == "127.0.0.1" + ending || name == "localhost" + ending ||
         (port == 80 && (name == "127.0.0.1" || name == "localhost"));
}

}  // namespace ossilar::utils
