#include "ossilar/cli/commands.h"
#include "ossilar/workers/wiki/host/wiki_reader.h"

namespace ossilar::cli {
namespace {

using workers::wiki::Answer;
using workers::wiki::PageContext;

Map document_of(const PageContext& context) {
  Map document = workers::wiki::author_brief(context);
  document["source_files"] = context.grounding.files;
  document["symbols"] = context.grounding.symbols;
  document["grounding"] = context.grounding.text;
  return document;
}

}  // namespace

int run_context(const Place& place, const std::string& page_id, Output& output) {
  require_utf8_argument(page_id, "PAGE");
  const auto wiki = open_at(place, "context");
  bring_up_to_date(*wiki);
  const auto found = workers::wiki::WikiReader(*wiki).page_context(page_id);
  if (const auto* refusal = std::get_if<Answer>(&found)) return print_refusal(*refusal, output);
  const auto& context = std::get<PageContext>(found);
  output.document(document_of(context));
  output.raw(context.grounding.text);
  return kDone;
}

}  // namespace ossilar::cli
