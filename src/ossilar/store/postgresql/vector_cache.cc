#include "ossilar/store/postgresql/vector_cache.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>
#include <utility>

#include "ossilar/store/stored_form.h"

namespace ossilar::store::postgresql {
namespace {

constexpr const char* kVectorsOfPassages =
    "SELECT passage_key, vector FROM vectors WHERE model = $1 AND passage_key = ANY($2::bigint[])";
// Vectors that are asked for in one query: some MB.
constexpr std::size_t kVectorsTogether = 2048;

}  // namespace

std::vector<std::int64_t> VectorCache::missing(const std::string& model,
                                               const std::vector<std::int64_t>& passages) {
  const std::shared_lock lock(mutex_);
  if (model != model_) return passages;
  std::vector<std::int64_t> absent;
  std::copy_if(passages.begin(), passages.end(), std::back_inserter(absent),
               [&](std::int64_t passage) { return vectors_.count(passage) == 0; });
  return absent;
}

void VectorCache::fetch(Session& session, const std::string& model,
                        const std::vector<std::int64_t>& passages) {
  for (std::size_t at = 0; at < passages.size(); at += kVectorsTogether) {
    const auto begin = passages.begin() + static_cast<std::ptrdiff_t>(at);
    const auto count = std::min(kVectorsTogether, passages.size() - at);
    const std::vector<std::int64_t> some(begin, begin + static_cast<std::ptrdiff_t>(count));
    const Result rows = session.run_one({.sql = kVectorsOfPassages, .values = {model, some}});
    const std::lock_guard lock(mutex_);
    if (std::exchange(model_, model) != model) vectors_.clear();
    for (std::size_t row = 0; row < rows.rows(); ++row)
      vectors_.emplace(rows.number(row, 0), vector_of(rows.bytes(row, 1)));
  }
}

// Whoever waited for another's fetch looks again: it has mostly brought what was missing.
std::vector<std::optional<double>> VectorCache::cosines(Session& session, const std::string& model,
                                                        const std::vector<std::int64_t>& passages,
                                                        const Vector& query) {
  if (!missing(model, passages).empty()) {
    const std::lock_guard one_at_a_time(fetching_);
    fetch(session, model, missing(model, passages));
  }
  std::vector<std::optional<double>> found(passages.size());
  const std::shared_lock lock(mutex_);
  if (model != model_) return found;
  for (std::size_t at = 0; at < passages.size(); ++at) {
    const auto vector = vectors_.find(passages[at]);
    if (vector != vectors_.end()) found[at] = dot(query, vector->second);
  }
  return found;
}

void VectorCache::settle(const std::vector<std::int64_t>& passages) {
  const std::lock_guard lock(mutex_);
  if (vectors_.size() <= 2 * passages.size()) return;
  const std::unordered_set<std::int64_t> wanted(passages.begin(), passages.end());
  std::erase_if(vectors_, [&](const auto& entry) { return wanted.count(entry.first) == 0; });
}

void VectorCache::drop() {
  const std::lock_guard lock(mutex_);
  vectors_.clear();
}

}  // namespace ossilar::store::postgresql
