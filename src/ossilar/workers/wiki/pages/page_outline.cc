// Sections are told by their place: with the same headings in the same order, the third section of one
// version is the third of the other, also where two have one name.
#include "ossilar/workers/wiki/pages/page_outline.h"

#include <cstddef>
#include <vector>

#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::size_t kDigits = 16;  // as of a version
// A hundred authors of one page rarely save more often between one's reading and saving; some 3 KB in a row.
constexpr std::size_t kMostVersions = 16;

std::string digits_of(std::string_view text) { return utils::sha256_hex(text).substr(0, kDigits); }

}  // namespace

std::string outline_of(std::string_view page_text) {
  const std::string body = split_authored(page_text, "").body;
  std::string headings, parts;
  for (const Section& section : sections_of(body)) {
    headings += section.heading + "\n";
    parts += " " + digits_of(section.text);
  }
  return digits_of(headings) + parts;
}

bool is_same_section(std::string_view before, std::string_view page_text, std::string_view heading) {
  const std::string now = outline_of(page_text);
  const auto past = utils::split_words(before);
  const auto present = utils::split_words(now);
  if (past.size() != present.size() || past.front() != present.front()) return false;
  const std::string body = split_authored(page_text, "").body;
  const auto number = section_number(sections_of(body), heading);
  return !number || past[*number + 1] == present[*number + 1];
}

Map with_version(Map versions, const std::string& version, const std::string& outline) {
  if (!versions.is_object()) versions = Map::object();
  versions.erase(version);
  versions[version] = outline;
  while (versions.size() > kMostVersions) versions.erase(versions.begin());
  return versions;
}

}  // namespace ossilar::workers::wiki
