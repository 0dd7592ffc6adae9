// Finding passages by their words and by their vectors. Internal to this room; called by operations.h. The
// functions do what WikiStore's of the same meaning say. Threads and errors: as rows.h.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ossilar/store/postgresql/session.h"
#include "ossilar/store/postgresql/vector_cache.h"
#include "ossilar/store/repository.h"

namespace ossilar::store::postgresql {

std::vector<FoundPassage> find_words(Session& session, const std::string& branch, const std::string& words,
                                     const PassageFilter& filter, std::size_t limit);
std::vector<FoundPassage> find_nearest(Session& session, VectorCache& vectors, const std::string& branch,
                                       const std::string& model, const Vector& query,
                                       const PassageFilter& filter, std::size_t limit);

}  // namespace ossilar::store::postgresql
