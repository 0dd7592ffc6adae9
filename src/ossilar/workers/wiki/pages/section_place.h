// Adding a section to a page and removing one: what `place` asks of a save beside `section`. Without it a
// save replaces a section, which agent_save.cc does.
//
// Thread-safety: functions without state; any thread may call. Failures: what the author can mend is an
// answer with `error`.
#pragma once

#include <optional>
#include <string>

#include "ossilar/workers/wiki/agent_answers.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

// Where a section goes.
struct SectionPlace {
  enum class Kind { after, last, removed };
  Kind kind = Kind::last;
  std::string heading;  // of `after`: the section before
};

// Of "after: HEADING", "last" and "remove"; none of any other text.
std::optional<SectionPlace> section_place(const std::string& place);

// Whether the request takes a section out of the page, so that it needs no content.
bool removes_section(const SaveRequest& request);

// Refuses a place without a section, one that says nothing, and a removal with content. None for any other
// request.
std::optional<Answer> refuse_place(const SaveRequest& request);

// As AgentSaveMixin::_with_section(): `content`, the whole authored text, and `warnings`; or `error`, with
// `sections`, the headings there are, where a section is missing or is there already. `stored` is the text of
// the page's file, `description` that of its plan.
Answer with_section_placed(const std::string& page_id, const std::string& stored,
                           const std::string& description, const SaveRequest& request);

}  // namespace ossilar::workers::wiki
