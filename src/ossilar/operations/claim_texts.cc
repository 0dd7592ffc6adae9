#include "ossilar/operations/claim_texts.h"

#include "ossilar/operations/schemas.h"
#include "ossilar/utils/logging.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/asking/page_claims.h"

namespace ossilar::operations {
namespace {

const utils::Logger claims_logger("ossilar.claims");

}  // namespace

Argument holder_argument() {
  return {.name = "holder",
          .option = {},
          .value = {},
          .schema = schema::needed_text("the `holder` that claim_page gave you, if your requests are of no "
                                        "session or several agents share it; without it, your session")};
}

std::string holder_of(const Asked& asked) { return asked.arguments.value("holder", asked.session); }

std::string claim_text(const store::PageClaim& claim) {
  return (claim.client.empty() ? "another agent" : claim.client) + " (" + claim.holder + ") until " +
         utils::iso_time(claim.until);
}

std::vector<std::string> settle_claim(const Asked& asked, const std::string& page_id) try {
  const std::string holder = holder_of(asked);
  const auto claim = workers::wiki::standing_claim(asked.wiki, page_id, workers::wiki::seconds_now());
  if (!claim) return {};
  if (claim->holder == holder) {
    asked.wiki.store().release_page(asked.wiki.branch(), page_id, holder);
    return {};
  }
  return {"Warning: " + claim_text(*claim) +
          " has claimed this page, so the two of you may have done the same work. Take the next page. If it "
          "is you who claimed it, pass `holder` when you save."};
} catch (const std::exception& error) {
  claims_logger.warning("cannot look after the claim of the page " + page_id, error);
  return {};
}

}  // namespace ossilar::operations
