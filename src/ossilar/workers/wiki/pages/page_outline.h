// Which parts of a page are the same in two of its versions. So a save of one section onto a version
// (`if_version`) can go on when only other sections changed since.
//
// host/orchestrator.cc keeps the outlines of the last versions in the build cache of the page's row: texts of
// old versions are not kept, and another process than the one that handed a version out may be asked for it.
// An outline belongs to the text that the version is a hash of, so an entry is never out of date.
//
// Thread-safety: functions without state; any thread may call. None fails: a damaged entry is no outline.
#pragma once

#include <string>
#include <string_view>

#include "ossilar/utils/json.h"

namespace ossilar::workers::wiki {

// The key of the build cache: an object, the outline of each version by its name, the latest last.
inline constexpr const char* kVersions = "versions";

// The outline of a page file's text: a hash of its headings and their order, then one of each section's text,
// sixteen hexadecimal digits each, with blanks between them.
std::string outline_of(std::string_view page_text);

// Whether `heading` names a section of `page_text` that is the same, byte for byte, in the version with the
// outline `before`, and the headings are too. For a heading that no section has, the headings alone count.
bool is_same_section(std::string_view before, std::string_view page_text, std::string_view heading);

// `versions` with one more at its end; the first ones go when there are too many.
Map with_version(Map versions, const std::string& version, const std::string& outline);

}  // namespace ossilar::workers::wiki
