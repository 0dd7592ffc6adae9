// The context of a page's author within a budget: what the page is for, the pages around it with what they
// say, the public symbols of its files, and as much of the sources as there is room for, what the author asks
// for first. gather_grounding() is what a save's grounding hash is made of, and stays as it is.
//
// Threads: a function without state, to be called from any thread; `read` is called on the caller's.
// Failures: a source that `read` gives nothing of has no excerpt; what `read` throws passes to the caller.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ossilar/workers/wiki/grounding/grounding.h"
#include "ossilar/workers/wiki/grounding/signature.h"

namespace ossilar::workers::wiki {

// A file, or lines of one.
struct FocusPlace {
  const source::SourceFile* file = nullptr;
  std::optional<Extent> lines = {};
};

struct ContextWish {
  std::size_t room = kGroundingBudget;  // bytes of text; what comes before the symbols is never cut by it
  std::vector<FocusPlace> focus = {};   // shown first
  Abstracts abstracts = {};
};

// `files` are the page's, as gather_grounding() gives them.
std::string context_text(const PagePlan& plan, const Plans& plans, const source::SourceIndex& index,
                         const std::string& steering, const std::vector<std::string>& files,
                         const ReadSource& read, const ContextWish& wish);

}  // namespace ossilar::workers::wiki
