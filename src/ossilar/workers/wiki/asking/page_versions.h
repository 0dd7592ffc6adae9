// What a page was before, by the versions that host/history.h notes: lists them, compares two, and saves one
// again. operations/ asks.
//
// Thread-safety: any thread. Errors: store::StorageError; restore_page() those of a save.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ossilar/store/repository.h"
#include "ossilar/utils/task.h"
#include "ossilar/workers/wiki/host/saving.h"
#include "ossilar/workers/wiki/host/wiki.h"
#include "ossilar/workers/wiki/types.h"

namespace ossilar::workers::wiki {

struct PageHistory {
  std::string page_id;                       // another than was asked for, if that is a former one
  std::vector<store::PageVersion> versions;  // the newest first, without texts; empty if none is kept
};
PageHistory page_history(Wiki& wiki, const std::string& asked);

// What changed between two versions of a page.
struct VersionComparison {
  std::string page_id;
  store::PageVersion before;  // with its text, as the next
  store::PageVersion after;   // number 0 for a page file that no kept version has
  std::string diff;           // unified, of title and authored text; "" if these are equal
};

// Compares two versions, each named by its number or by a beginning of its name. Without `to` with the page
// as it stands, without `from` from the last version that reads otherwise. An answer with `error` for a
// version or a page that is not kept.
std::variant<VersionComparison, Answer> compare_versions(Wiki& wiki, const std::string& asked,
                                                         const std::optional<std::string>& from,
                                                         const std::optional<std::string>& to);

struct RestoreRequest {
  std::string page_id = {};
  std::string version = {};  // as in compare_versions()
  std::optional<std::string> if_version = {};
  std::string client = {};
};

// Saves the authored text of a version again, with the title that its author chose. The page is as true or as
// stale as that text is today: what it cites, and the sources it rests on, are those of its record.
SaveOutcome restore_page(Wiki& wiki, const RestoreRequest& request, utils::Task& task);

}  // namespace ossilar::workers::wiki
