#include "ossilar/web/forge.h"

#include "ossilar/web/address.h"

namespace ossilar::web {
namespace {

bool drop_ending(std::string_view& text, std::string_view ending) {
  if (!text.ends_with(ending)) return false;
  text.remove_suffix(ending.size());
  return true;
}

// Forges differ in what stands between repository and commit.
std::string_view view_of(std::string_view host) {
  const auto has = [&](std::string_view word) { return host.find(word) != std::string_view::npos; };
  if (has("gitlab")) return "/-/blob/";
  if (has("bitbucket")) return "/src/";
  if (has("codeberg") || has("gitea") || has("forgejo")) return "/src/commit/";
  return "/blob/";
}

}  // namespace

std::string forge_address(std::string_view origin, std::string_view commit) {
  if (commit.empty()) return "";
  std::string_view host;
  std::string_view path;
  if (const std::size_t scheme = origin.find("://"); scheme != std::string_view::npos) {
    if (origin.starts_with("file")) return "";
    const bool is_web = origin.starts_with("http");
    origin.remove_prefix(scheme + 3);
    const std::size_t slash = origin.find('/');
    if (slash == std::string_view::npos) return "";
    host = origin.substr(0, slash);
    path = origin.substr(slash + 1);
    host.remove_prefix(host.rfind('@') + 1);  // npos + 1 is 0
    // The port of ssh is not that of the forge's pages.
    if (!is_web) host = host.substr(0, host.find(':'));
  } else {
    // "git@host:owner/name". A Windows path "C:\x" and a local one have no "@" before a colon.
    const std::size_t at = origin.find('@');
    const std::size_t colon = origin.find(':');
    if (at == std::string_view::npos || colon == std::string_view::npos || colon < at) return "";
    host = origin.substr(at + 1, colon - at - 1);
    path = origin.substr(colon + 1);
  }
  while (drop_ending(path, "/")) {
  }
  drop_ending(path, ".git");
  while (path.starts_with("/")) path.remove_prefix(1);
  for (const char c : host) {
    const bool is_plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                          c == '.' || c == '-' || c == ':';
    if (!is_plain) return "";
  }
  if (host.empty() || path.empty()) return "";
  return "https://" + std::string(host) + "/" + encoded_path(path) + std::string(view_of(host)) +
         encoded_path(commit) + "/";
}

}  // namespace ossilar::web
