// Moves a wiki between the database of this machine and one that machines share.
#include "ossilar/workers/wiki/host/copy_wiki.h"

#include "ossilar/cli/commands.h"
#include "ossilar/cli/progress.h"
#include "ossilar/store/write_lock.h"

namespace ossilar::cli {
namespace {

std::string number_of(std::size_t number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

int refuse(const std::string& why, Output& output) {
  output.document(Map{{"error", why}});
  output.line(output.styled(Style::bad, "refused") + "  " + why);
  return kRefused;
}

void tell(const workers::wiki::WikiCopy& copied, bool to_local, Output& output) {
  const store::CopyCounts& counts = copied.counts;
  output.document(Map{{"branches", copied.branches},
                      {"pages", counts.pages},
                      {"versions", counts.versions},
                      {"passages", counts.passages},
                      {"cited_texts", counts.texts},
                      {"already_there", counts.present}});
  output.line(output.styled(Style::good, "copied") + "  " + number_of(counts.pages, "page") + " with " +
              number_of(counts.versions, "version") + ", " + number_of(counts.passages, "passage") + " and " +
              number_of(counts.texts, "cited text") + ", of " + std::to_string(copied.branches) +
              (copied.branches == 1 ? " branch" : " branches") + "; each was compared");
  if (counts.present > 0)
    output.line("        " + number_of(counts.present, "page") + " of these were there from an earlier copy");
  output.line(to_local ? "To use it, take url out of [store] in ossilar.toml."
                       : "To use it, set url under [store] in ossilar.toml, or OSSILAR_STORE_URL.");
}

}  // namespace

int run_store_copy(const Place& place, const StoreCopyArguments& arguments, Output& output) {
  workers::wiki::WikiCopy copied;
  try {
    ProgressBar bar("copying");
    copied = workers::wiki::copy_wiki(place.root(), arguments.from, arguments.to, bar.callback());
  } catch (const store::CopyRefused& refused) {
    return refuse(refused.what(), output);
  } catch (const store::LockBusy& busy) {
    return refuse(busy.what(), output);
  }
  tell(copied, arguments.to == workers::wiki::kLocalStore, output);
  return kDone;
}

}  // namespace ossilar::cli
