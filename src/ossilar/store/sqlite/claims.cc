// Ended claims are dropped by the next claim, so the table stays as small as the number of agents, and what
// is left of a page is a claim that stands.
#include "ossilar/store/sqlite/claims.h"

namespace ossilar::store {
namespace {

constexpr const char* kDropEnded = "DELETE FROM page_claims WHERE branch = ?1 AND until <= ?2";
// Changes nothing where another holds the page.
constexpr const char* kClaim =
    "INSERT INTO page_claims VALUES (?1, ?2, ?3, ?4, ?5) ON CONFLICT DO UPDATE"
    " SET client = excluded.client, until = excluded.until WHERE holder = excluded.holder";
constexpr const char* kStanding =
    "SELECT page_id, holder, client, until FROM page_claims WHERE branch = ?1 AND page_id = ?2";
constexpr const char* kReleasePage =
    "DELETE FROM page_claims WHERE branch = ?1 AND page_id = ?2 AND holder = ?3";
constexpr const char* kClaims =
    "SELECT page_id, holder, client, until FROM page_claims WHERE branch = ?1 AND until > ?2"
    " ORDER BY page_id";

PageClaim claim_of(const Query& row) {
  return {.page_id = row.text(0), .holder = row.text(1), .client = row.text(2), .until = row.number(3)};
}

}  // namespace

PageClaim write_claim(Connection& connection, const std::string& branch, const PageClaim& claim,
                      std::int64_t now) {
  Query(connection, kDropEnded, branch, now).run();
  Query(connection, kClaim, branch, claim.page_id, claim.holder, claim.client, claim.until).run();
  Query row(connection, kStanding, branch, claim.page_id);
  row.next();  // there is one: ours, or the one that kept ours out
  return claim_of(row);
}

void drop_claim(Connection& connection, const std::string& branch, const std::string& page_id,
                const std::string& holder) {
  Query(connection, kReleasePage, branch, page_id, holder).run();
}

std::vector<PageClaim> read_claims(Connection& connection, const std::string& branch, std::int64_t now) {
  std::vector<PageClaim> claims;
  Query rows(connection, kClaims, branch, now);
  while (rows.next()) claims.push_back(claim_of(rows));
  return claims;
}

}  // namespace ossilar::store
