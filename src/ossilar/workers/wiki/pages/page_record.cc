// One JSON object a line, not one for the whole record: after a merge or a hand's edit, a broken line costs
// one fact and not all. The first key of an object names the kind of fact, which is why the order of keys
// matters here.
//
// Only the generated part is searched, and only its first record counts. The author's text above the marker
// may quote a record, as a page about this format would, and so may a hand below it; neither may pass for the
// page's own.
#include "ossilar/workers/wiki/pages/page_record.h"

#include <map>
#include <set>
#include <utility>

#include "ossilar/utils/error.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/citations.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/link_text.h"
#include "ossilar/workers/wiki/page_title.h"

namespace ossilar::workers::wiki {
namespace {

constexpr std::string_view kRecordBegin = "<!-- ossilar:record\n";
constexpr std::string_view kRecordEnd = "-->";

// A `>` after two hyphens would end the comment, so each is written as an escape, which JSON reads as the
// same character. A `>` can only be inside a string.
std::string fact_line(const Map& fact) {
  std::string line;
  for (const char c : utils::json_text(fact)) {
    if (c == '>') {
      line += "\\u003e";
    } else {
      line += c;
    }
  }
  return line + "\n";
}

// The record with its frame, as a view into `text`; empty if there is none. It begins at the start of a line.
// The line feed at its end may be missing where the file ends: some editors remove it.
std::string_view framed_record(std::string_view text) {
  if (text.find(kRecordBegin) == text.npos) return {};  // spares finding the generated part
  std::string_view part = generated_of(text);
  const std::size_t feed = part.find("\n" + std::string(kRecordBegin));
  if (feed == part.npos) return {};
  part.remove_prefix(feed + 1);
  const std::size_t end = part.find(std::string(kRecordEnd) + "\n", kRecordBegin.size());
  if (end != part.npos) return part.substr(0, end + kRecordEnd.size() + 1);
  return part.substr(kRecordBegin.size()).ends_with(kRecordEnd) ? part : std::string_view();
}

// Versions of files that were cited, by path and hash.
using CitedVersions = std::map<std::pair<std::string, std::string>, FileVersion>;

void take_claim(PageRecord& record, const Map& fact) {
  const auto lines = parse_citation(utils::string_member(fact, "cites"));
  if (!lines) return;
  KnownClaim claim{.citation = *lines,
                   .heading = {},
                   .says = utils::string_member(fact, "says"),
                   .print = fingerprint_in(fact)};
  claim.print.file.hash = utils::string_member(fact, "file");
  record.claims.push_back(std::move(claim));
}

// Claims of an earlier format do not name the version of their file; the hash of the page's source tells it.
void complete_claims(PageRecord& record, const CitedVersions& versions) {
  for (KnownClaim& claim : record.claims) {
    FileVersion& file = claim.print.file;
    const auto source = record.source_hashes.find(claim.citation.path);
    if (file.hash.empty() && source != record.source_hashes.end()) file.hash = source->second.substr(0, 16);
    const auto version = versions.find({claim.citation.path, file.hash});
    if (version != versions.end()) file = version->second;
  }
}

// One fact for each version of a file that is cited, then the claims. The same claim twice is one.
std::string claim_facts(const std::vector<KnownClaim>& claims) {
  std::string versions, facts;
  std::set<std::string> seen;
  for (const KnownClaim& claim : claims) {
    const FileVersion& file = claim.print.file;
    Map version{{"cited", claim.citation.path}, {"file", file.hash}};
    if (!file.blob.empty()) version["blob"] = file.blob;
    if (!file.commit.empty()) version["commit"] = file.commit;
    Map fact{{"cites", citation_label(claim.citation)}};
    if (!claim.says.empty()) fact["says"] = claim.says;
    put_fingerprint(fact, claim.print);
    if (!file.hash.empty()) fact["file"] = file.hash;
    if (const std::string line = fact_line(version); !file.hash.empty() && seen.insert(line).second)
      versions += line;
    if (const std::string line = fact_line(fact); seen.insert(line).second) facts += line;
  }
  return versions + facts;
}

void take_fact(PageRecord& record, CitedVersions& versions, const Map& fact) {
  if (!fact.is_object() || fact.empty()) return;
  const std::string& kind = fact.begin().key();
  const std::string value = utils::string_member(fact, kind.c_str());
  if (kind == "type") {
    record.type = value;
    record.title = utils::string_member(fact, "title");
  } else if (kind == "agent_title") {
    record.agent_title = value;
  } else if (kind == "former_title") {
    record.former_titles.push_back(value);
  } else if (kind == "former_id") {
    record.former_ids.push_back(value);
  } else if (kind == "source") {
    record.source_hashes[value] = utils::string_member(fact, "hash");
  } else if (kind == "cites") {
    take_claim(record, fact);
  } else if (kind == "cited") {
    const std::string hash = utils::string_member(fact, "file");
    versions[{value, hash}] = {hash, utils::string_member(fact, "blob"),
                               utils::string_member(fact, "commit")};
  } else if (kind == "confirmed") {
    record.confirmations.push_back(fact);
  }
}

}  // namespace

bool PageRecord::tells_of_text() const {
  return !type.empty() || !title.empty() || !source_hashes.empty() || !claims.empty();
}

std::string record_text(const PageRecord& record) {
  std::string text(kRecordBegin);
  if (record.tells_of_text()) text += fact_line({{"type", record.type}, {"title", record.title}});
  if (!record.agent_title.empty()) text += fact_line({{"agent_title", record.agent_title}});
  for (const std::string& title : record.former_titles) text += fact_line({{"former_title", title}});
  for (const std::string& id : record.former_ids) text += fact_line({{"former_id", id}});
  for (const auto& [source, hash] : record.source_hashes)
    text += fact_line({{"source", source}, {"hash", hash}});
  text += claim_facts(record.claims);
  for (const Map& confirmation : record.confirmations) text += fact_line(confirmation);
  return text.append(kRecordEnd).append("\n");
}

std::optional<PageRecord> record_of(std::string_view page_text) {
  std::string_view facts = framed_record(page_text);
  if (facts.empty()) return std::nullopt;
  facts.remove_prefix(kRecordBegin.size());
  facts = facts.substr(0, facts.rfind(kRecordEnd));
  PageRecord record;
  CitedVersions versions;
  for (const std::string_view line : utils::split_lines(facts)) {
    try {
      take_fact(record, versions, utils::parse_json(line, "a line of a page's record"));
    } catch (const utils::Error&) {
      continue;  // written by hand or broken by a merge: this fact is lost, the others count
    }
  }
  complete_claims(record, versions);
  return record;
}

// with_record() puts an empty line before the record, which without_record() leaves.
std::string with_record_replaced(std::string_view page_text, const PageRecord& record) {
  std::string bare = without_record(page_text);
  if (bare.size() < page_text.size() && bare.ends_with("\n\n")) bare.pop_back();
  return with_record(std::move(bare), record_text(record));
}

// The offset is taken from the view, which points into `page_text`.
std::string without_record(std::string_view page_text) {
  const std::string_view record = framed_record(page_text);
  if (record.empty()) return std::string(page_text);
  const auto begin = static_cast<std::size_t>(record.data() - page_text.data());
  return std::string(page_text.substr(0, begin)).append(page_text.substr(begin + record.size()));
}

PageRecord record_of_row(const Map& row) {
  PageRecord record{.type = utils::string_member(row, "page_type"),
                    .title = utils::string_member(row, "title"),
                    .agent_title = agent_title(&row).value_or(""),
                    .former_titles = former_titles(&row),
                    .source_hashes = {},
                    .claims = remembered_claims(row),
                    .confirmations = {},
                    .former_ids = former_ids(&row)};
  const Map hashes = utils::json_member(row, "source_hashes");
  for (const auto& [source, hash] : hashes.items()) record.source_hashes[source] = utils::text_form(hash);
  return record;
}

}  // namespace ossilar::workers::wiki
