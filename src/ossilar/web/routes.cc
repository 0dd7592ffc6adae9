// A path is decoded once and then looked up: among the files that are built in, the pages of the plan, the
// files of the index. No file is opened by a name that came with a request.
#include "ossilar/web/routes.h"

#include <algorithm>

#include "ossilar/utils/hash.h"
#include "ossilar/utils/own_host.h"
#include "ossilar/utils/text.h"
#include "ossilar/web/address.h"
#include "ossilar/web/embedded.h"
#include "ossilar/web/lists_view.h"
#include "ossilar/web/page_view.h"
#include "ossilar/web/source_view.h"

namespace ossilar::web {
namespace {

constexpr std::string_view kHtml = "text/html; charset=utf-8";
constexpr std::size_t kLongestPath = 4096;  // bytes; a page id has 200 at most, a path of a file seldom more

// Nothing is loaded from elsewhere, and no script runs but the files of this server. Mermaid sizes its
// drawings with style elements of its own; only pages that have such drawings allow these.
std::string content_policy(bool has_mermaid) {
  return std::string("default-src 'none'; script-src 'self'; img-src 'self'; connect-src 'self'; ") +
         "frame-src 'self'; frame-ancestors 'self'; base-uri 'none'; form-action 'self'; style-src 'self'" +
         (has_mermaid ? " 'unsafe-inline'" : "");
}

Response with_headers(Response response, std::string_view type, bool has_mermaid = false) {
  response.headers.insert(response.headers.end(), {{"Content-Type", std::string(type)},
                                                   {"Content-Security-Policy", content_policy(has_mermaid)},
                                                   {"X-Content-Type-Options", "nosniff"},
                                                   {"X-Frame-Options", "SAMEORIGIN"},
                                                   {"Referrer-Policy", "no-referrer"},
                                                   {"Cross-Origin-Opener-Policy", "same-origin"},
                                                   {"Cross-Origin-Resource-Policy", "same-origin"}});
  return response;
}

// With a tag by which a browser asks whether it changed: there are no dates to go by, as a page depends on
// many files.
Response content(const Request& request, std::string body, std::string_view type, bool has_mermaid = false) {
  const std::string tag = "\"" + utils::sha256_hex(body).substr(0, 32) + "\"";
  Response response;
  response.headers = {{"ETag", tag}, {"Cache-Control", "no-cache"}};
  if (request.if_none_match == tag) {
    response.status = 304;
  } else {
    response.body = std::move(body);
  }
  return with_headers(std::move(response), type, has_mermaid);
}

std::string_view type_of(std::string_view file) {
  if (file.ends_with(".css")) return "text/css; charset=utf-8";
  if (file.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (file.ends_with(".svg")) return "image/svg+xml";
  return "application/octet-stream";
}

// Its links are relative to the path as the browser has it, so that is taken undecoded.
Response not_found(const Request& request, const Site& site, const Edition& edition) {
  const Asked asked{site, edition, request.path.substr(1)};
  Response response{.status = 404,
                    .body = message_document(asked, "Not found", "There is no such page in this wiki."),
                    .headers = {{"Cache-Control", "no-cache"}}};
  return with_headers(std::move(response), kHtml);
}

Response redirect(const std::string& address) {
  return with_headers({.status = 302, .headers = {{"Location", "/" + address}}}, kHtml);
}

// An address that is none of a page's: perhaps an id without ".html", a former id, or a title, now or
// formerly.
Response page_by_name(const std::string& name, const Request& request, const Site& site,
                      const Edition& edition) {
  std::string_view wanted = name;
  if (wanted.ends_with(".html")) wanted.remove_suffix(5);
  if (wanted.ends_with(".md")) wanted.remove_suffix(3);
  if (site.page(std::string(wanted)) != nullptr) return redirect(page_address(wanted));
  const auto former = site.former_ids().find(std::string(wanted));
  if (former != site.former_ids().end()) return redirect(page_address(former->second));
  if (const auto id = site.page_of_title(std::string(wanted))) return redirect(page_address(*id));
  return not_found(request, site, edition);
}

Response respond_to_path(const std::string& path, const Request& request, const Site& site,
                         const utils::Task& task) {
  const Edition edition;
  const Asked asked{site, edition, path};
  if (path == kHome) return content(request, home_document(asked), kHtml);
  if (path == kStatePage) return content(request, state_document(asked), kHtml);
  if (path == kSearchPage || path == "search.json") {
    const std::string query = decoded(request.query).value_or("");
    if (path == kSearchPage) return content(request, search_document(asked, query, task), kHtml);
    return content(request, search_json(site, query, task), "application/json");
  }
  if (path.starts_with("assets/")) {
    const auto file = embedded_file(path);
    return file ? content(request, std::string(*file), type_of(path)) : not_found(request, site, edition);
  }
  if (path.starts_with("pages/")) {
    const auto id = name_below("pages/", path);
    const workers::wiki::PageState* page = id ? site.page(*id) : nullptr;
    if (page == nullptr) return page_by_name(path.substr(6), request, site, edition);
    Document document = page_document(asked, *page);
    return content(request, std::move(document.html), kHtml, document.has_mermaid);
  }
  if (const auto slug = name_below("titles/", path)) {
    const auto found = site.former_titles().find(*slug);
    if (found != site.former_titles().end()) return redirect(page_address(found->second));
  }
  if (const auto name = name_below("source/", path)) {
    if (auto document = source_document(asked, *name)) return content(request, *std::move(document), kHtml);
  }
  return not_found(request, site, edition);
}

}  // namespace

Response plain_response(int status, const std::string& line) {
  return with_headers({.status = status, .body = line + "\n", .headers = {{"Cache-Control", "no-store"}}},
                      "text/plain; charset=utf-8");
}

Response respond(const Request& request, const Site& site, std::uint16_t port, const utils::Task& task) {
  if (!utils::is_own_host(request.host, port)) {
    return plain_response(403,
                          "This server answers to http://127.0.0.1:" + std::to_string(port) + "/ alone.");
  }
  if (request.method != "GET" && request.method != "HEAD") {
    Response response = plain_response(405, "Only GET and HEAD are answered here.");
    response.headers.emplace_back("Allow", "GET, HEAD");
    return response;
  }
  if (request.path.size() > kLongestPath) return plain_response(414, "The address is too long.");
  auto path = decoded(request.path);
  if (!path || !path->starts_with("/")) return plain_response(400, "The address is malformed.");
  path->erase(0, 1);
  if (*path == "events") {
    Response response{.headers = {{"Cache-Control", "no-store"}}, .is_event_stream = true};
    return with_headers(std::move(response), "text/event-stream");
  }
  return respond_to_path(path->empty() ? std::string(kHome) : *path, request, site, task);
}

}  // namespace ossilar::web
