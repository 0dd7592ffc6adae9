// Files decide: a row, a list, a digest or passages that do not fit the page file are wrong, not the file.
// The order of run() matters: inspect_folder() notes which pages have a file, which inspect_rows() needs;
// temporary files are listed first and looked for again near the end, so that the inspection itself is most
// of the time that a writer at work is given to finish.
//
// Each page gets one finding for how its file and row differ. What is derived (passages, digest) is compared
// only where file and row agree (page_inspection.cc): otherwise the repair makes it anew anyway.
#include "ossilar/workers/wiki/check/inspection.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <system_error>
#include <thread>

#include "ossilar/utils/atomic_file.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/parallel.h"
#include "ossilar/utils/text.h"
#include "ossilar/workers/wiki/check/adoption.h"
#include "ossilar/workers/wiki/check/renaming.h"
#include "ossilar/workers/wiki/citing/page_state.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/pages/former_file.h"
#include "ossilar/workers/wiki/pages/page_record.h"
#include "ossilar/workers/wiki/repo_facts.h"

namespace ossilar::workers::wiki {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A writer creates its temporary file and then locks it. In between the file looks as if it was left behind,
// and on a busy machine the writer may have to wait for a processor. It gets kTimeToLock, in steps of
// kLookEvery. A longer time makes a check with a real leftover slower; a shorter one reports slow writers.
constexpr auto kTimeToLock = 250ms;
constexpr auto kLookEvery = 25ms;

constexpr const char* kAdoptsIt = "ossilar check --fix adopts it as it is";

// Both marks, in this order: one of them alone may be what the page is about.
bool is_in_conflict(const std::string& text) {
  bool ours = false;
  for (const std::string_view line : utils::split_lines(text)) {
    if (line.substr(0, 8) == "<<<<<<< ") ours = true;
    if (ours && line.substr(0, 8) == ">>>>>>> ") return true;
  }
  return false;
}

}  // namespace

std::vector<fs::path> written_directories(const WikiPaths& paths) {
  std::vector<fs::path> directories{paths.root};
  std::error_code error;
  // `ossilar init` writes the configuration of agents' clients to hidden folders such as .vscode.
  for (const auto& entry : fs::directory_iterator(paths.root, error)) {
    const std::string name = entry.path().filename().string();
    if (name.front() == '.' && name != ".git" && entry.symlink_status().type() == fs::file_type::directory)
      directories.push_back(entry.path());
  }
  if (paths.wiki != paths.root) directories.push_back(paths.wiki);
  const auto add_below = [&](const fs::path& directory) {
    fs::recursive_directory_iterator at(directory, error);
    for (; !error && at != fs::recursive_directory_iterator(); at.increment(error)) {
      if (at->symlink_status().type() == fs::file_type::directory) directories.push_back(at->path());
    }
  };
  directories.push_back(paths.pages);
  add_below(paths.pages);
  add_below(paths.state);
  return directories;
}

Inspection::Inspection(Wiki& wiki)
    : wiki_(wiki),
      planned_(wiki.prepare()),  // citations and states are judged by the sources of now
      rows_(wiki.stored_pages()),
      digests_(wiki.store().load_digests(wiki.branch())),
      titles_(wiki.titles(rows_, planned_->plans)),
      manifest_(wiki.lists().read_all()) {}

std::vector<Finding> Inspection::run() {
  auto left = leftover_files();
  inspect_setup();
  inspect_folder();
  inspect_rows();
  inspect_digests();
  inspect_generated();
  inspect_leftovers(std::move(left));
  inspect_former_files();
  inspect_states();
  return std::move(findings_);
}

// For people to read, and for JSON: a name that is not UTF-8 gets replacement characters.
std::string Inspection::relative(const fs::path& path) const {
  return utils::valid_utf8(path.lexically_relative(wiki_.paths().root).string());
}

std::string Inspection::page_path(const std::string& page_id) const {
  return relative(wiki_.paths().pages / (page_id + ".md"));
}

// Not ossilar.toml: without one the defaults hold.
void Inspection::inspect_setup() {
  std::error_code error;
  const fs::path local = wiki_.paths().state / ".gitignore";
  if (!fs::exists(fs::symlink_status(local, error))) {
    add({Fault::setup, relative(local), "", "is missing, so git does not ignore ossilar's local state",
         kRebuildsIt, true});
  }
  const fs::path merging = wiki_.paths().wiki / ".gitattributes";
  if (!fs::exists(fs::symlink_status(merging, error))) {
    add({Fault::setup, relative(merging), "", "is missing, so git cannot merge the generated lists",
         kRebuildsIt, true});
  }
}

// ---- Pages.

void Inspection::inspect_folder() {
  std::vector<fs::directory_entry> entries;
  std::error_code error;
  fs::recursive_directory_iterator at(wiki_.paths().pages, error);
  for (; !error && at != fs::recursive_directory_iterator(); at.increment(error)) entries.push_back(*at);
  // With half a listing, the pages of the other half would look deleted, and --fix would forget them. A
  // folder that is not there at all is an empty one.
  if (error && utils::is_there(wiki_.paths().pages))
    throw utils::IoError("cannot list " + wiki_.paths().pages.string(), error.value());
  std::sort(entries.begin(), entries.end());
  std::vector<std::vector<Finding>> found(entries.size());  // of each entry, so that their order stays
  std::vector<std::size_t> pages;
  for (std::size_t i = 0; i < entries.size(); ++i)
    if (inspect_entry(entries[i], found[i])) pages.push_back(i);
  std::vector<std::optional<PageFile>> differing(pages.size());
  utils::in_parallel(pages.size(), [&](std::size_t i) {
    differing[i] = inspect_page_file(entries[pages[i]].path(), found[pages[i]]);
  });
  for (std::size_t i = 0; i < pages.size(); ++i)
    if (differing[i]) inspect_differing(*differing[i], found[pages[i]]);
  for (std::vector<Finding>& of_entry : found)
    std::move(of_entry.begin(), of_entry.end(), std::back_inserter(findings_));
}

// Reads the file. What is derived of a page that is its row's is looked at here, and any other page is given
// back: whether it was taken over, renamed or edited is asked of the whole wiki, and seldom.
std::optional<PageFile> Inspection::inspect_page_file(const fs::path& file,
                                                      std::vector<Finding>& findings) const {
  PageFile page{.page_id = file.lexically_relative(wiki_.paths().pages).replace_extension().string(),
                .text = {}};
  try {
    page.text = utils::read_text_file_within(wiki_.paths().pages, file);
  } catch (const utils::IoError& error) {  // before Error, which it is too
    findings.push_back({Fault::page_file, relative(file), page.page_id, utils::valid_utf8(error.what()),
                        "make the file readable, then run ossilar check", false});
    return std::nullopt;
  } catch (const utils::Error& error) {
    findings.push_back({Fault::page_file, relative(file), page.page_id, utils::valid_utf8(error.what()),
                        "fix the file, or save the page again", false});
    return std::nullopt;
  }
  const Map* row = rows_.find(page.page_id);
  if (row == nullptr || utils::string_member(*row, "content_hash") != _text_hash(page.text)) return page;
  add_page_findings(page, *row, digests_.find(page.page_id),
                    wiki_.store().chunks(wiki_.branch(), page.page_id),
                    {.planned = *planned_, .titles = titles_}, page_path(page.page_id), findings);
  return std::nullopt;
}

Finding Inspection::unusable(const fs::path& file, const std::string& page_id,
                             const std::string& message) const {
  return {Fault::page_file,
          relative(file),
          page_id,
          message,
          "put a regular file in its place, or remove it",
          false};
}

// A folder may have any name, "notes.md" too, unless it stands where a page of that name should be. A
// symbolic link is reported whatever it is called: as a page it is not written through, and as a folder it
// hides the pages below it, whose rows must not be taken for rows without a file (blocked_).
bool Inspection::inspect_entry(const fs::directory_entry& entry, std::vector<Finding>& findings) {
  const fs::path& file = entry.path();
  const fs::file_type type = entry.symlink_status().type();
  const bool is_page = file.extension() == ".md";
  const std::string page_id = file.lexically_relative(wiki_.paths().pages).replace_extension().string();
  const bool is_known = planned_->plans.find(page_id) != nullptr || rows_.find(page_id) != nullptr;
  if (type == fs::file_type::directory && !(is_page && is_known)) return false;
  if (is_page) seen_.insert(page_id);
  if (type == fs::file_type::symlink && !is_page) blocked_.push_back(file);
  if (type == fs::file_type::symlink) {
    findings.push_back(unusable(file, page_id, "is a symbolic link, which ossilar does not write through"));
    return false;
  }
  if (is_page && type != fs::file_type::regular)
    findings.push_back(unusable(file, page_id, "is not a regular file"));
  return is_page && type == fs::file_type::regular;
}

// A text that a manifest knows was stored by a save, so marks of a conflict in it, or nothing but blanks, are
// what its author wrote. In any other text they are what git or a hand left, and a repair must not take it
// over.
void Inspection::inspect_differing(const PageFile& page, std::vector<Finding>& findings) {
  const bool known = manifest_.describes(page.page_id, _text_hash(page.text));
  if (!known && is_in_conflict(page.text)) {
    findings.push_back({Fault::page_file, page_path(page.page_id), page.page_id, "has merge conflict markers",
                        "resolve the conflict, then run ossilar check --fix", false});
  } else if (!known && utils::strip(page.text).empty()) {
    findings.push_back({Fault::page_file, page_path(page.page_id), page.page_id, "is empty",
                        "restore the file, or save the page again", false});
  } else if (rows_.find(page.page_id) == nullptr) {
    inspect_stranger(page, findings);
  } else {
    findings.push_back(difference(page));
    add_citation_findings(page, {.planned = *planned_, .titles = titles_}, page_path(page.page_id), findings);
  }
}

// A file without a row. One that neither plan nor manifest has may be no page at all, so that only its author
// can say what to do with it.
void Inspection::inspect_stranger(const PageFile& page, std::vector<Finding>& findings) {
  const std::string& page_id = page.page_id;
  const std::string subject = page_path(page_id);
  if (auto former = renaming_cut_short(wiki_, rows_, page.text)) {
    findings.push_back({Fault::half_renamed, subject, page_id,
                        "is the new file of page '" + *former + "', whose renaming was cut short",
                        "ossilar check --fix finishes it", true});
    renamed_.insert(*std::move(former));
    return;
  }
  const bool planned = planned_->plans.find(page_id) != nullptr;
  if (planned || manifest_.described.count(page_id) > 0) {
    findings.push_back({Fault::file_without_row, subject, page_id, "is a page without a row in the database",
                        kAdoptsIt, true});
    return add_citation_findings(page, {.planned = *planned_, .titles = titles_}, subject, findings);
  }
  findings.push_back(
      {Fault::file_without_row, subject, page_id, "is not a page of the plan",
       is_page_id(page_id)
           ? "add a [[page]] with the id \"" + page_id + "\" to ossilar.toml, or remove the file"
           : "rename it to a valid page id (lower-case letters, digits, '-', '_', '.'), or remove it",
       false});
}

// Whether what stands below the marker fits the text, that is, whether a save of the text would add the same.
// The record is not compared: it says what the sources were at the time, and a save would say what they are.
// The basis is an adoption's, in which the page already has the title of its file.
bool Inspection::is_whole(const PageFile& page) const {
  Adoption adoption(wiki_, manifest_, {page.page_id});
  const auto drafted = redraft(wiki_, adoption.basis(), page.page_id, page.text);
  return drafted && without_record(drafted->markdown) == without_record(page.text);
}

// All three are taken over by a repair. They differ in what the user is told: by whom, and whether the page
// should be saved once more to bring its generated part in line.
Finding Inspection::difference(const PageFile& page) const {
  const std::string subject = page_path(page.page_id);
  if (manifest_.describes(page.page_id, _text_hash(page.text))) {
    return {Fault::newer_page, subject,
            page.page_id,      "was changed by version control since ossilar last stored it",
            kAdoptsIt,         true};
  }
  if (is_whole(page)) {
    return {
        Fault::newer_page,
        subject,
        page.page_id,
        "was changed since ossilar last stored it, by an interrupted save, a manual edit or version control",
        kAdoptsIt,
        true};
  }
  return {Fault::edited_page,
          subject,
          page.page_id,
          "was edited by hand, so the generated part below the marker no longer matches the text",
          std::string(kAdoptsIt) + "; save the page to update that part",
          true};
}

// ---- What is not about a page file.

bool Inspection::is_blocked(const std::string& page_id) const {
  return std::any_of(blocked_.begin(), blocked_.end(), [&](const fs::path& folder) {
    return (wiki_.paths().pages / page_id).string().starts_with(folder.string() + "/");
  });
}

// Needs seen_ and blocked_, so it runs after inspect_folder().
void Inspection::inspect_rows() {
  rows_.for_each([&](const std::string& page_id, const Map&) {
    if (seen_.count(page_id) > 0 || renamed_.count(page_id) > 0 || is_blocked(page_id)) return;
    add({Fault::row_without_file, page_path(page_id), page_id, "is gone, but the database still has its row",
         "restore the file, or let ossilar check --fix forget the page (its text goes to .ossilar/replaced)",
         true});
  });
}

void Inspection::inspect_digests() {
  digests_.for_each([&](const std::string& page_id, const Map&) {
    if (rows_.find(page_id) != nullptr) return;
    add({Fault::digest, page_path(page_id), page_id, "has a digest but no row in the database",
         "ossilar check --fix removes the digest", true});
  });
}

void Inspection::inspect_generated() {
  for (const ListFile& list : wiki_.lists().expected(rows_, manifest_.lint)) inspect_list(list);
  for (const std::string& stray : wiki_.lists().strays(rows_)) {
    add({stray.ends_with(kManifestEnd) ? Fault::manifest : Fault::index, relative(wiki_.paths().wiki / stray),
         "", "is a list that no page belongs to any more", "ossilar check --fix removes it", true});
  }
}

// Line ends are normalised, as git may check the lists out with those of another system.
void Inspection::inspect_list(const ListFile& list) {
  const Fault fault = list.name.ends_with(kManifestEnd) ? Fault::manifest : Fault::index;
  const fs::path file = wiki_.paths().wiki / list.name;
  const fs::file_type type = fs::symlink_status(file).type();
  if (type != fs::file_type::regular && type != fs::file_type::not_found) {
    return add({fault, relative(file), "", "is not a regular file",
                "move it away, then run ossilar check --fix", false});
  }
  std::optional<std::string> text;
  if (type == fs::file_type::regular)
    text = utils::normalise_line_ends(utils::read_file_within(wiki_.paths().wiki, file));
  if (text == list.text) return;
  add({fault, relative(file), "", !text ? "is missing" : "does not match the stored pages", kRebuildsIt,
       true});
}

// Only the holder of the write lock creates these files, and that is this check. So each is left over, and
// there is no writer to wait for, unlike with temporary files.
void Inspection::inspect_former_files() {
  for (const fs::path& file : former_files(wiki_.paths().pages)) {
    add({Fault::leftover, relative(file), "",
         "is the former file of a page, left by a save that did not finish",
         "ossilar check --fix removes it, or keeps it in .ossilar/replaced if no save has stored its text",
         true, file});
  }
}

std::map<std::string, bool> Inspection::leftover_files() const {
  std::map<std::string, bool> files;
  for (const fs::path& directory : written_directories(wiki_.paths())) {
    try {
      for (const utils::Leftover& file : utils::leftovers(directory))
        files.emplace((directory / file.name).string(), file.may_be_new);
    } catch (const utils::IoError&) {
      continue;  // where nothing can be looked at, nothing was written either
    }
  }
  return files;
}

// Reports the files of `left`, listed at the start of the inspection, that are still there. As long as one of
// them may be new, it looks again until kTimeToLock is over; any other is reported at once.
//
// The write lock does not make this needless: not every file is written under it, refused drafts for one.
void Inspection::inspect_leftovers(std::map<std::string, bool> left) {
  for (auto waited = 0ms;; waited += kLookEvery) {
    const auto now = leftover_files();
    std::erase_if(left, [&](const auto& file) { return now.count(file.first) == 0; });
    const bool may_go = std::any_of(left.begin(), left.end(), [](const auto& file) { return file.second; });
    if (!may_go || waited >= kTimeToLock) break;
    std::this_thread::sleep_for(kLookEvery);
  }
  for (const auto& [file, may_be_new] : left) {
    add({Fault::leftover, relative(file), "", "was left by an interrupted write",
         "ossilar check --fix removes it", true, file});
  }
}

// A wiki can be whole and still out of date. Only an author can mend that, so none of these is fixable.
void Inspection::inspect_states() {
  const auto follower = wiki_.follower(*planned_);
  const auto states = wiki::page_states(planned_->plans, rows_, wiki_.store().stale_marks(wiki_.branch()),
                                        *planned_->index, wiki_.config().steering, *follower);
  for (const PageState& state : states) {
    const std::string context = "ossilar context " + state.page_id;
    const auto tell = [&](Fault fault, const std::string& advice) {
      add({fault, page_path(state.page_id), state.page_id,
           std::string("is ") + condition_name(state.condition) + ": " + state.reason, advice, false});
    };
    switch (state.condition) {
      case PageCondition::stale:
        tell(Fault::stale, "update it (see: " + context + ") and save it");
        break;
      case PageCondition::unverified:
        tell(Fault::unverified, context + " says what it needs");
        break;
      case PageCondition::moved:
        tell(Fault::moved, "run ossilar sync");
        break;
      case PageCondition::drifted:
        tell(Fault::drifted, "read it when you next touch it (see: " + context +
                                 "), or, if it still holds: ossilar confirm " + state.page_id);
        break;
      case PageCondition::orphaned:
        add({Fault::orphaned, page_path(state.page_id), state.page_id, "is orphaned: no longer in the plan",
             orphan_advice(state) + "; a [[page]] in ossilar.toml keeps it", false});
        break;
      case PageCondition::ok:
      case PageCondition::missing:
        break;
    }
  }
}

}  // namespace ossilar::workers::wiki
