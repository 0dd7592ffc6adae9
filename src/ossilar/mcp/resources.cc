// Sections and drafts are served but not listed: a list of every section would be long and out of date with
// each save, and a draft is for its author, to whom the answer of the save named it. Templates say how both
// are addressed.
#include "ossilar/mcp/resources.h"

#include <algorithm>

#include "ossilar/mcp/protocol/message.h"
#include "ossilar/mcp/protocol/params.h"
#include "ossilar/mcp/protocol/uri.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/finalize.h"
#include "ossilar/workers/wiki/sections.h"

namespace ossilar::mcp {
namespace {

using workers::wiki::StoredPage;
using workers::wiki::Wiki;

// With title and summary a hundred pages make a message of moderate size; fewer would take more calls.
constexpr std::size_t kPagesAList = 100;
constexpr const char* kMarkdown = "text/markdown";
// The templates do not change while the program runs. A client may cache them for an hour, as with tools
// (tools.cc).
constexpr int kTemplatesMilliseconds = 60 * 60 * 1000;
constexpr int kPagesMilliseconds = 0;  // a page may be saved at any time

// The code for a resource that does not exist changed with the revision that is stateless.
[[noreturn]] void throw_not_found(Revision revision, const std::string& uri) {
  const int code = is_stateless(revision) ? error_code::kInvalidParams : error_code::kResourceNotFound;
  throw ProtocolError(code, "there is no resource '" + uri + "'", Map{{"uri", uri}});
}

Map described(const std::string& page_id, const Map& row, Revision revision) {
  Map shown{{"uri", page_uri(page_id)}, {"name", page_id}};
  if (has_structured_results(revision)) shown["title"] = utils::string_member(row, "title");
  shown["description"] = utils::string_member(row, "summary");
  shown["mimeType"] = kMarkdown;
  return shown;
}

Map template_of(const char* uri, const char* name, const char* title, const char* description,
                Revision revision) {
  Map shown{{"uriTemplate", uri}, {"name", name}};
  if (has_structured_results(revision)) shown["title"] = title;
  shown["description"] = description;
  shown["mimeType"] = kMarkdown;
  return shown;
}

// The name comes from the client and may be anything. A draft's name is checked by KeptTexts::read(), which
// knows only names that it gave, and a page's id must be planned or stored: no name leads out of the wiki.
std::optional<std::string> text_of(Wiki& wiki, const ResourceName& resource) {
  if (resource.kind == ResourceName::Kind::draft) return wiki.kept_drafts().read(resource.name);
  const auto found = workers::wiki::WikiReader(wiki).read_page(resource.name);
  const auto* page = std::get_if<StoredPage>(&found);
  if (page == nullptr) return std::nullopt;
  if (resource.kind == ResourceName::Kind::page) return page->text;
  return workers::wiki::section_text(workers::wiki::split_authored(page->text, "").text(), resource.section);
}

}  // namespace

// In the order of the page ids. A cursor is the last id of the list before, so pages that come or go between
// two calls neither repeat nor hide others. The rows are one snapshot, so each list is of one moment.
Map list_resources(workers::wiki::WikiProvider& provider, Revision revision, const Map& params) {
  const auto cursor = optional_string(params, "cursor");
  const store::StoredRows rows = provider.get()->stored_pages();
  if (cursor && rows.find(*cursor) == nullptr)
    throw ProtocolError(error_code::kInvalidParams, "params.cursor is unknown; list again without a cursor");
  Map list = Map::array();
  std::size_t left = 0;  // pages behind this list; only with some is there a next one
  rows.for_each([&](const std::string& page_id, const Map& row) {
    if (cursor && page_id <= *cursor) return;
    if (list.size() < kPagesAList) {
      list.push_back(described(page_id, row, revision));
    } else {
      ++left;
    }
  });
  Map result{{"resources", list}};
  if (left > 0) result["nextCursor"] = list.back()["name"];
  return finished_for(revision, std::move(result), kPagesMilliseconds);
}

Map list_resource_templates(workers::wiki::WikiProvider& /*provider*/, Revision revision, const Map& params) {
  if (optional_string(params, "cursor")) {
    throw ProtocolError(error_code::kInvalidParams,
                        "params.cursor is unknown: resources/templates/list has only one page");
  }
  return finished_for(
      revision,
      Map{{"resourceTemplates",
           Map::array(
               {template_of(kPageTemplate, "page", "A wiki page", "A stored page as Markdown", revision),
                template_of(kSectionTemplate, "section", "A section of a wiki page",
                            "One `##` section, named by its heading", revision),
                template_of(kDraftTemplate, "draft", "A refused text",
                            "A text that save_page refused, under the name in its answer", revision)})}},
      kTemplatesMilliseconds);
}

Map read_resource(workers::wiki::WikiProvider& provider, Revision revision, const Map& params) {
  const std::string uri = required_string(params, "uri");
  const auto resource = parse_uri(uri);
  if (!resource) throw_not_found(revision, uri);
  const auto text = text_of(*provider.get(), *resource);
  if (!text) throw_not_found(revision, uri);
  const Map content{{"uri", uri}, {"mimeType", kMarkdown}, {"text", *text}};
  return finished_for(revision, Map{{"contents", Map::array({content})}}, kPagesMilliseconds);
}

void require_page_uri(workers::wiki::WikiProvider& provider, Revision revision, const std::string& uri) {
  const auto resource = parse_uri(uri);
  if (!resource || resource->kind != ResourceName::Kind::page ||
      !workers::wiki::WikiReader(*provider.get()).standing_id(resource->name))
    throw_not_found(revision, uri);
}

}  // namespace ossilar::mcp
