// What the operations that write pages share about claims (workers/wiki/asking/page_claims.h).
//
// Thread-safety: no state, any thread may call.
#pragma once

#include <string>
#include <vector>

#include "ossilar/operations/operation.h"
#include "ossilar/store/repository.h"

namespace ossilar::operations {

// With which an agent says which claims are its own where its requests are of no session, or where several
// agents share one.
Argument holder_argument();
// The argument, or what names the session.
std::string holder_of(const Asked& asked);

// "agent (3f9a2c1b) until 2026-01-02T03:04:05Z".
std::string claim_text(const store::PageClaim& claim);

// To be called once a page was saved. Frees it if the caller holds it, and gives a note if another does.
// Throws nothing: the page is saved, whatever becomes of its claim, which ends by itself.
std::vector<std::string> settle_claim(const Asked& asked, const std::string& page_id);

}  // namespace ossilar::operations
