// Names the pages that cite a file. The rules are in workers/wiki/asking/cites.cc; this only translates.
#include "ossilar/workers/wiki/asking/cites.h"

#include <algorithm>

#include "ossilar/operations/doubts.h"
#include "ossilar/operations/operation.h"
#include "ossilar/operations/schemas.h"

namespace ossilar::operations {
namespace {

using workers::wiki::CitingClaim;
using workers::wiki::LineRange;

constexpr std::size_t kMostClaims = 100;  // in a session: some 10,000 tokens

struct Wanted {
  std::string path;
  std::optional<LineRange> range;
};

Wanted wanted(std::string place) {
  if (place.starts_with("./")) place.erase(0, 2);
  if (const auto citation = workers::wiki::parse_citation(place))
    return {citation->path, LineRange{citation->first, citation->last}};
  while (place.size() > 1 && place.ends_with('/')) place.pop_back();
  return {place, std::nullopt};
}

bool is_known(const source::SourceIndex& index, const std::string& path) {
  const auto& files = index.files();
  return index.find(path) != nullptr || std::any_of(files.begin(), files.end(), [&](const auto& file) {
           return file->path.starts_with(path + "/");
         });
}

Map no_such_file(const source::SourceIndex& index, const std::string& path) {
  return {{"error", "there is no file or folder '" + path + "' in the source, and no page cites one"},
          {"similar", index.named(path.substr(path.rfind('/') + 1))}};
}

Map no_such_lines(const source::SourceFile& file) {
  return {{"error", file.path + " has " + std::to_string(file.lines) + " line(s)"}};
}

Map described(const CitingClaim& claim) {
  Map shown{{"page_id", claim.page_id}, {"title", claim.title}};
  shown.update(doubt_map({claim.claim.known.heading, claim.claim.known.citation, claim.state, claim.now}));
  shown["sentence"] = claim.claim.sentence;
  shown["line"] = claim.claim.line;
  return shown;
}

Result call_cites(const Asked& asked) {
  const auto [path, range] = wanted(utils::string_member(asked.arguments, "path"));
  const auto found = workers::wiki::citing_claims(asked.wiki, path, range, asked.task);
  const source::SourceIndex& index = *asked.wiki.planned()->index;
  if (found.empty() && !is_known(index, path)) return {.value = no_such_file(index, path)};
  const source::SourceFile* file = index.find(path);
  if (found.empty() && range && file != nullptr && range->last > file->lines)
    return {.value = no_such_lines(*file)};
  const std::size_t most = asked.caller == Caller::shell ? found.size() : kMostClaims;
  Map claims = Map::array();
  for (std::size_t i = 0; i < std::min(found.size(), most); ++i) claims.push_back(described(found[i]));
  return {.value = Map{{"claims", std::move(claims)}, {"total", found.size()}}};
}

}  // namespace

Operation cites() {
  using namespace schema;  // NOLINT(google-build-using-namespace): a schema reads as one expression
  Map claim = claim_schema();
  claim["properties"]["page_id"] = text("the page");
  claim["properties"]["title"] = text("the page's title");
  return {.command = "cites",
          .tool = "find_citations",
          .title = "Who cites a source",
          .does = "Name the sentences that cite a file, a folder or some lines",
          .description =
              "Names the sentences of the wiki that cite a file, or some of its lines as they are now: what "
              "is written about this code. Call it before you change code, to see what relies on it.",
          .example = "ossilar cites src/main.cc\nossilar cites src/main.cc:L10-L20",
          .arguments = {{.name = "path",
                         .option = "PATH",
                         .value = {},
                         .schema = needed_text("a file or folder from the repository's root, or lines of a "
                                               "file as a citation names them: src/a.cc:L10-L20"),
                         .required = true}},
          .output_schema = object({{"claims", list(claim, "in the order of the pages")},
                                   {"total", count("number of claims, also of those left out")},
                                   {"error", text("why nothing can be said")},
                                   {"similar", strings("files of the same name elsewhere")}}),
          .call = call_cites};
}

}  // namespace ossilar::operations
