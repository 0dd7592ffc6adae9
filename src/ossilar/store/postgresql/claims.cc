// Ended claims are dropped by the next claim, so the table stays as small as the number of agents, and what
// is left of a page is a claim that stands.
#include "ossilar/store/postgresql/claims.h"

#include <utility>

namespace ossilar::store::postgresql {
namespace {

constexpr const char* kDropEnded = "DELETE FROM page_claims WHERE branch = $1 AND until <= $2";
// Changes nothing where another holds the page.
constexpr const char* kClaim =
    "INSERT INTO page_claims VALUES ($1, $2, $3, $4, $5) ON CONFLICT (branch, page_id) DO UPDATE"
    " SET client = excluded.client, until = excluded.until WHERE page_claims.holder = excluded.holder";
constexpr const char* kStanding =
    "SELECT page_id, holder, client, until FROM page_claims WHERE branch = $1 AND page_id = $2";
constexpr const char* kReleasePage =
    "DELETE FROM page_claims WHERE branch = $1 AND page_id = $2 AND holder = $3";
constexpr const char* kClaims =
    "SELECT page_id, holder, client, until FROM page_claims WHERE branch = $1 AND until > $2"
    " ORDER BY page_id COLLATE \"C\"";

PageClaim claim_at(const Result& rows, std::size_t at) {
  return {.page_id = rows.text(at, 0),
          .holder = rows.text(at, 1),
          .client = rows.text(at, 2),
          .until = rows.number(at, 3)};
}

}  // namespace

PageClaim write_claim(Session& session, const std::string& branch, const PageClaim& claim, std::int64_t now) {
  std::vector<Statement> statements;
  statements.push_back({.sql = kDropEnded, .values = {branch, now}});
  statements.push_back(
      {.sql = kClaim, .values = {branch, claim.page_id, claim.holder, claim.client, claim.until}});
  statements.push_back({.sql = kStanding, .values = {branch, claim.page_id}});
  const std::vector<Result> results = session.run(std::move(statements));
  return claim_at(results.at(2), 0);  // there is one: ours, or the one that kept ours out
}

Statement releasing(const std::string& branch, const std::string& page_id, const std::string& holder) {
  return {.sql = kReleasePage, .values = {branch, page_id, holder}};
}

std::vector<PageClaim> read_claims(Session& session, const std::string& branch, std::int64_t now) {
  const Result rows = session.run_one({.sql = kClaims, .values = {branch, now}});
  std::vector<PageClaim> claims;
  claims.reserve(rows.rows());
  for (std::size_t at = 0; at < rows.rows(); ++at) claims.push_back(claim_at(rows, at));
  return claims;
}

}  // namespace ossilar::store::postgresql
