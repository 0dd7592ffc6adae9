// Every text here comes from pages and paths, so each is escaped for the form that it goes into: a sentence
// that looks like a workflow command must not become one.
#include "ossilar/cli/annotations.h"

#include <fmt/format.h>

#include <functional>
#include <string_view>

#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/citations.h"

namespace ossilar::cli {
namespace {

// What is shown, and where.
struct Annotation {
  workers::wiki::Citation place;
  bool is_moved = false;
  std::string page_id;
  std::string citation;  // as the page has it
  std::string message;
};

Annotation annotation_of(const Map& page, const Map& claim, const std::string& wiki_dir) {
  const std::string state = utils::string_member(claim, "state");
  const std::string section = utils::string_member(claim, "section");
  const std::string file = wiki_dir + "/" + utils::string_member(page, "rel_path");
  const auto line = claim.at("line").get<std::int64_t>();
  const auto now = workers::wiki::parse_citation(utils::string_member(claim, "now"));
  const std::string what = state == "moved" ? "moves" : "changes";
  return {.place = now.value_or(workers::wiki::Citation{file, line, line}),
          .is_moved = state == "moved",
          .page_id = utils::string_member(page, "page_id"),
          .citation = utils::string_member(claim, "citation"),
          .message = fmt::format("this {} what {}:{} cites{}: {}", what, file, line,
                                 section.empty() ? "" : " in '" + section + "'",
                                 utils::string_member(claim, "sentence"))};
}

void for_each_annotation(const Map& affected, const std::string& wiki_dir,
                         const std::function<void(const Annotation&)>& take) {
  for (const Map& page : affected.at("pages"))
    for (const Map& claim : page.at("claims")) take(annotation_of(page, claim, wiki_dir));
}

std::string escaped(std::string_view text, std::string_view bytes) {
  std::string made;
  for (const char byte : text) {
    if (bytes.find(byte) == std::string_view::npos) {
      made += byte;
    } else {
      made += fmt::format("%{:02X}", static_cast<unsigned>(byte));
    }
  }
  return made;
}

std::string as_message(const std::string& text) { return escaped(text, "%\r\n"); }
std::string as_property(const std::string& text) { return escaped(text, "%\r\n:,"); }

}  // namespace

std::string github_annotations(const Map& affected, const std::string& wiki_dir) {
  std::string lines;
  for_each_annotation(affected, wiki_dir, [&](const Annotation& shown) {
    lines += fmt::format("::{} file={},line={},endLine={},title={}::{}\n",
                         shown.is_moved ? "notice" : "warning", as_property(shown.place.path),
                         shown.place.first, shown.place.last, as_property("wiki page " + shown.page_id),
                         as_message(utils::printable_line(shown.message)));
  });
  return lines;
}

// The fingerprint tells the same finding in two reports, so it does not depend on where the change puts it.
std::string gitlab_annotations(const Map& affected, const std::string& wiki_dir) {
  Map report = Map::array();
  for_each_annotation(affected, wiki_dir, [&](const Annotation& shown) {
    const std::string known_by = shown.page_id + "\n" + shown.citation + "\n" + shown.message;
    report.push_back({{"description", utils::printable_line(shown.message)},
                      {"check_name", shown.is_moved ? "ossilar/moved" : "ossilar/stale"},
                      {"fingerprint", utils::sha256_hex(known_by).substr(0, 32)},
                      {"severity", shown.is_moved ? "info" : "major"},
                      {"location",
                       {{"path", shown.place.path},
                        {"lines", {{"begin", shown.place.first}, {"end", shown.place.last}}}}}});
  });
  return report.dump(2) + "\n";
}

}  // namespace ossilar::cli
