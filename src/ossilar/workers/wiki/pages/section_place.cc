// A section of a name that is there already is not added a second time: a save of one, and a link to it,
// would always mean the first.
#include "ossilar/workers/wiki/pages/section_place.h"

#include <algorithm>

#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::workers::wiki {
namespace {

using Kind = SectionPlace::Kind;

constexpr std::string_view kAfter = "after:";

Answer refusal_with_headings(const std::string& error, const std::string& stored) {
  return {{"error", error}, {"sections", section_headings(stored)}};
}

bool has_section(const std::string& text, const std::string& heading) {
  return section_number(sections_of(text), heading).has_value();
}

}  // namespace

std::optional<SectionPlace> section_place(const std::string& place) {
  if (place == "last") return SectionPlace{.kind = Kind::last, .heading = {}};
  if (place == "remove") return SectionPlace{.kind = Kind::removed, .heading = {}};
  if (!place.starts_with(kAfter)) return std::nullopt;
  std::string heading(utils::strip(std::string_view(place).substr(kAfter.size())));
  if (heading.empty()) return std::nullopt;
  return SectionPlace{.kind = Kind::after, .heading = std::move(heading)};
}

bool removes_section(const SaveRequest& request) {
  const auto place = section_place(request.place.value_or(""));
  return place && place->kind == Kind::removed;
}

std::optional<Answer> refuse_place(const SaveRequest& request) {
  if (!request.place) return std::nullopt;
  const auto refused = [](const char* error) { return Answer{{"error", error}}; };
  if (!section_place(*request.place))
    return refused("place must be \"after: HEADING\", \"last\" or \"remove\"");
  const std::string section = request.section.value_or("");
  if (heading_key(section).empty()) return refused("place needs section, the heading that it is about");
  if (section.find('\n') != std::string::npos) return refused("section must be one line");
  if (removes_section(request) && !utils::strip(request.content).empty())
    return refused("a section that is removed has no content; leave content empty, or leave out place");
  return std::nullopt;
}

Answer with_section_placed(const std::string& page_id, const std::string& stored,
                           const std::string& description, const SaveRequest& request) {
  const SectionPlace place = section_place(request.place.value_or("")).value_or(SectionPlace{});
  const std::string heading(utils::strip(request.section.value_or("")));
  const std::string text = split_authored(stored, description).text();
  const std::string named = "page '" + page_id + "' has ";
  std::optional<std::string> placed;
  std::string missing = heading;
  if (place.kind == Kind::removed) {
    placed = remove_section(text, heading);
  } else {
    if (has_section(text, heading)) {
      return refusal_with_headings(
          named + "a section '" + heading + "' already; leave out place to replace it", stored);
    }
    const bool is_last = place.kind == Kind::last;
    placed =
        add_section(text, heading, request.content, is_last ? std::nullopt : std::optional(place.heading));
    missing = place.heading;
  }
  if (!placed) return refusal_with_headings(named + "no section '" + missing + "'", stored);
  return {{"content", *std::move(placed)}, {"warnings", Map::array()}};
}

}  // namespace ossilar::workers::wiki
