// How the shell shows the answer of each operation. run_operation.cc calls this, on the main thread. Nothing
// is changed here, so a failure leaves nothing.
#pragma once

#include <filesystem>
#include <string>

#include "ossilar/cli/output.h"
#include "ossilar/operations/operation.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/host/wiki.h"

namespace ossilar::cli {

// What is brought up to date before the operation runs (run_operation.cc):
// - as_stored: nothing, for a page as it lies on disk.
// - pages: those that version control brought. No index: the operation looks at files itself.
// - vectors: pages that version control brought, then vectors of the current model for all passages.
// - sources: index and plan, then pages that version control brought. No vectors: a save must not take as
//   long as embedding the whole wiki.
enum class Freshness { as_stored, pages, vectors, sources };

struct Given {
  const workers::wiki::Wiki& wiki;
  const Map& arguments;
  const Map& value;  // the operation's document
};

struct View {
  std::string_view command;  // the operation's
  Freshness needs = Freshness::sources;
  void (*print)(const Given& given, Output& output) = nullptr;
};

// The text that a document has under a key, "" if it has none.
inline std::string text_at(const Map& value, const char* key) { return utils::string_member(value, key); }

// The view of an operation. Throws std::logic_error for one without a view: every operation must have one.
const View& view_of(const operations::Operation& operation);

// The path relative to the current directory, as the user would type it.
std::string shown_path(const std::filesystem::path& file);

}  // namespace ossilar::cli
