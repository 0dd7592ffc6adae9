// The addresses under which pages, their sections and kept drafts are resources.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ossilar::mcp {

// URI templates (RFC 6570) of what is listed as templates.
inline constexpr const char* kPageTemplate = "ossilar://pages/{+page_id}";
inline constexpr const char* kSectionTemplate = "ossilar://pages/{+page_id}{#section}";
inline constexpr const char* kDraftTemplate = "ossilar://drafts/{name}";

// What a URI names: one of the three.
struct ResourceName {
  enum class Kind { page, section, draft } kind = Kind::page;
  std::string name;     // a page id, or the name of a kept draft
  std::string section;  // the heading
};

std::string page_uri(std::string_view page_id);

// None for any other URI, and for one whose percent-encoding is broken. Says nothing on whether the resource
// exists.
std::optional<ResourceName> parse_uri(std::string_view uri);

}  // namespace ossilar::mcp
