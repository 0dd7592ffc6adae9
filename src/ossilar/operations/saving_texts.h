// What the operations share that take the text of a page: save_page.cc and check_page.cc.
//
// Threads and failure: as operations (operation.h).
#pragma once

#include <optional>
#include <vector>

#include "ossilar/operations/operation.h"
#include "ossilar/workers/wiki/agent_answers.h"

namespace ossilar::operations {

workers::wiki::SaveRequest request_of(const Map& arguments);

// Refuses what nobody has to look into a wiki for: size, encoding, and a place that
// says nothing.
std::optional<Map> refuse_text(const Map& arguments);

// What a save would answer, with `cited`: each valid citation and the first of its lines. Writes nothing.
Result preview(const Asked& asked, const workers::wiki::SaveRequest& request);

// Beside a refusal: each bracket that is no citation or link, and what may be meant.
std::vector<std::string> notes_on_refusal(const Asked& asked, const workers::wiki::SaveRequest& request);

// Beside the refusal of a section without content: how one is removed.
std::vector<std::string> notes_on_blank(const workers::wiki::SaveRequest& request);

// The arguments of both, and the properties that both answers have.
std::vector<Argument> text_arguments();
Map answer_properties();

}  // namespace ossilar::operations
