// The revisions of the Model Context Protocol that are served, and what tells them apart.
// https://modelcontextprotocol.io/specification
//
// session.cc finds out which revision a request speaks; what answers it asks here what that revision knows,
// and leaves out the rest. A new revision is a line in Revision, one in kRevisions, and the questions below.
//
// Thread-safety: no state is kept, so every function may be called from any thread. None fails.
#pragma once

#include <string_view>
#include <vector>

#include "ossilar/utils/json.h"

namespace ossilar::mcp {

// Keys of `_meta` and of notifications since 2026-07-28.
namespace meta_key {
inline constexpr const char* kVersion = "io.modelcontextprotocol/protocolVersion";
inline constexpr const char* kClientInfo = "io.modelcontextprotocol/clientInfo";
inline constexpr const char* kClientCapabilities = "io.modelcontextprotocol/clientCapabilities";
inline constexpr const char* kLogLevel = "io.modelcontextprotocol/logLevel";
inline constexpr const char* kServerInfo = "io.modelcontextprotocol/serverInfo";
inline constexpr const char* kSubscription = "io.modelcontextprotocol/subscriptionId";
}  // namespace meta_key

// In the order of their dates, so that "since" is a comparison. revision_name() relies on the order too.
enum class Revision { r2024_11_05, r2025_03_26, r2025_06_18, r2025_11_25, r2026_07_28 };

// The revision of this name (a date), or null. Valid for the life of the program.
const Revision* find_revision(std::string_view name);
const char* revision_name(Revision revision);

// The newest revision that begins with `initialize`; offered to a client that asks there for one not served.
inline constexpr Revision kLatestWithInitialize = Revision::r2025_11_25;

// The names of all revisions that a client without `initialize` may ask for.
std::vector<std::string_view> stateless_revisions();

// The names of all revisions that are served, oldest first.
std::vector<std::string_view> revision_names();

// In a stateless revision each request names its revision, and the session remembers nothing between
// requests.
constexpr bool is_stateless(Revision revision) { return revision >= Revision::r2026_07_28; }
// Added by this revision and taken out by the next.
constexpr bool has_batches(Revision revision) { return revision == Revision::r2025_03_26; }
constexpr bool has_tool_annotations(Revision revision) { return revision >= Revision::r2025_03_26; }
// Titles, structured results and their schemas.
constexpr bool has_structured_results(Revision revision) { return revision >= Revision::r2025_06_18; }

// What the server says of itself, without what the revision does not know. `instructions` is for the agent,
// if its client shows it.
Map server_info(Revision revision);
Map server_capabilities(Revision revision);
const char* instructions();

// A result as the revision has it: since 2026-07-28 it says that it is complete and who made it.
Map finished(Revision revision, Map result);
// The same for results that a client may cache for `ttl_ms` milliseconds; 0: not at all.
Map finished_for(Revision revision, Map result, int ttl_ms);
// For lists that do not change while the program runs, of tools and of prompts. An hour spares a client most
// of its questions; it is not longer, as a client may keep the list when the program is replaced by a newer
// one.
inline constexpr int kListMilliseconds = 60 * 60 * 1000;

}  // namespace ossilar::mcp
