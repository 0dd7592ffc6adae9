// The URIs under which pages, their sections and kept drafts are resources. resources.cc, completion.cc and
// session.cc use it.
//
// Thread-safety: no state is kept, so any thread may call these.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ossilar::mcp {

// URI templates (RFC 6570) as resources/templates/list shows them. `{+page_id}` keeps the slashes of a page
// id, which
// `{page_id}` would encode.
inline constexpr const char* kPageTemplate = "ossilar://pages/{+page_id}";
inline constexpr const char* kSectionTemplate = "ossilar://pages/{+page_id}{#section}";
inline constexpr const char* kDraftTemplate = "ossilar://drafts/{name}";

// What a URI names: one of the three.
struct ResourceName {
  enum class Kind { page, section, draft } kind = Kind::page;
  std::string name;     // a page id, or the name of a kept draft
  std::string section;  // the heading of Kind::section, else ""
};

// The URI of a page. `page_id` must be a page id.
std::string page_uri(std::string_view page_id);

// What `uri` names, percent-encoding decoded. None for a URI of another kind, without a name, with a broken
// encoding, or that decodes to something that is not UTF-8. Whether the resource exists is not looked at, nor
// whether the name is a safe one: the name comes from the client.
std::optional<ResourceName> parse_uri(std::string_view uri);

}  // namespace ossilar::mcp
