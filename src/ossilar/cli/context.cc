#include "ossilar/cli/commands.h"

namespace ossilar::cli {
namespace {

using workers::wiki::Answer;
using workers::wiki::PageContext;
using workers::wiki::PageType;

Map document_of(const PageContext& context) {
  const PageType& type = workers::wiki::plan_type(context.plan);
  return {{"page_id", context.plan.page_id},
          {"title", context.plan.title},
          {"type", type.name},
          {"description", context.plan.description},
          {"purpose", type.purpose},
          {"required_sections", type.required_sections},
          {"words", Map{{"least", type.least_words}, {"most", type.most_words}}},
          {"steering", context.steering},
          {"source_files", context.grounding.files},
          {"symbols", context.grounding.symbols},
          {"grounding", context.grounding.text}};
}

}  // namespace

int run_context(const Place& place, const std::string& page_id, Output& output) {
  require_utf8_argument(page_id, "PAGE");
  const auto wiki = open_at(place, "context");
  bring_up_to_date(*wiki);
  const auto found = wiki->page_context(page_id);
  if (const auto* refusal = std::get_if<Answer>(&found)) return print_refusal(*refusal, output);
  const auto& context = std::get<PageContext>(found);
  output.document(document_of(context));
  output.raw(context.grounding.text);
  return kDone;
}

}  // namespace ossilar::cli
