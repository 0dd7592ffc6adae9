#include "ossilar/cli/history_views.h"

#include <string>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::cli {
namespace {

// A client that nobody knows and a commit outside git leave their cells empty.
std::vector<Output::Cell> history_row(const Map& version) {
  constexpr std::size_t kShownOfCommit = 10;
  return {{utils::text_form(version.at("number")), Style::bold},
          {text_at(version, "version"), Style::dim},
          {text_at(version, "at")},
          {text_at(version, "commit").substr(0, kShownOfCommit)},
          {text_at(version, "action")},
          {text_at(version, "client")}};
}

}  // namespace

void print_history(const Given& given, Output& output) {
  const Map& versions = given.value.at("versions");
  if (versions.empty())
    return output.line("no version is kept yet; versions are kept from the page's next save on");
  std::vector<std::vector<Output::Cell>> rows;
  rows.reserve(versions.size());
  for (const Map& version : versions) rows.push_back(history_row(version));
  output.table({"NUMBER", "VERSION", "TIME", "COMMIT", "ACTION", "CLIENT"}, rows);
}

void print_comparison(const Given& given, Output& output) {
  const std::string diff = text_at(given.value, "diff");
  if (diff.empty()) return output.line("both versions read the same");
  output.raw(diff);
}

}  // namespace ossilar::cli
