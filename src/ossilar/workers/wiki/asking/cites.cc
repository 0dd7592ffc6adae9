// Claims about files that are gone are followed too: the file may be the new name of one of them.
#include "ossilar/workers/wiki/asking/cites.h"

#include <string_view>
#include <utility>

namespace ossilar::workers::wiki {
namespace {

bool is_at(const std::string& file, const std::string& path) {
  const bool is_below = file.size() > path.size() && file[path.size()] == '/';
  return file.starts_with(path) && (file.size() == path.size() || is_below);
}

bool is_about(const Citation& citation, const std::string& path, const std::optional<LineRange>& range) {
  return is_at(citation.path, path) &&
         (!range || (citation.first <= range->last && citation.last >= range->first));
}

}  // namespace

std::vector<CitingClaim> citing_claims(Wiki& wiki, const std::string& path, std::optional<LineRange> range,
                                       const utils::Task& task) {
  const auto planned = wiki.prepare();
  const auto follower = wiki.follower(*planned);
  const auto may_be_about = [&](const Citation& citation) {
    return is_at(citation.path, path) || planned->index->find(citation.path) == nullptr;
  };
  std::vector<CitingClaim> found;
  wiki.stored_pages().for_each([&](const std::string& page_id, const Map& row) {
    task.check();
    for (PlacedClaim& claim : placed_claims(wiki.paths(), page_id, row, may_be_about)) {
      const Looked looked = follower->look(claim.known.citation, claim.known.print);
      if (!is_about(looked.now.value_or(claim.known.citation), path, range)) continue;
      found.push_back(
          {page_id, utils::string_member(row, "title"), std::move(claim), looked.state, looked.now});
    }
  });
  return found;
}

}  // namespace ossilar::workers::wiki
