#include "ossilar/workers/wiki/wiki_lists.h"

#include <future>
#include <utility>

#include "ossilar/workers/wiki/adoption.h"

namespace ossilar::workers::wiki {
namespace {

const char* const kIndex = "index.md";
const char* const kManifest = "manifest.json";

}  // namespace

WikiLists::WikiLists(std::filesystem::path wiki, std::filesystem::path pages, bool beside)
    : wiki_(std::move(wiki)), pages_(std::move(pages)), beside_(beside) {}

std::string WikiLists::index(const ListContent& content) {
  const std::lock_guard lock(rendering_);
  return renderer_.index(content.rows, content.plans);
}

std::string WikiLists::manifest(const ListContent& content, const std::map<std::string, Map>& waiting) {
  const std::lock_guard lock(rendering_);
  return renderer_.manifest(content.rows, content.result, waiting);
}

// A manifest of another's may tell of pages that are not taken over yet.
std::map<std::string, Map> WikiLists::entries_waiting(const utils::FileStamp& manifest,
                                                      const ListContent& content,
                                                      const ManifestContent* known) const {
  if (known != nullptr) return waiting_entries(*known, content.rows, pages_);
  ManifestContent last;
  {
    const std::lock_guard lock(mutex_);
    if (manifest == last_.manifest) {
      for (const auto& [page_id, entry] : last_.waiting)
        last.pages.emplace(page_id, ManifestEntry(entry, utils::json_text(entry)));
    }
  }
  if (last.pages.empty() && !is_own(manifest)) last = load_manifest(wiki_);
  return waiting_entries(last, content.rows, pages_);
}

WikiLists::Staged WikiLists::stage(const ListContent& content, const ManifestContent* known) {
  Staged staged;
  staged.over = content.over;
  staged.waiting = entries_waiting(utils::stamp_of(wiki_ / kManifest), content, known);
  staged.index_text = index(content);
  const utils::FileStamp in_place = utils::stamp_of(wiki_ / kIndex);
  bool is_same = false;
  {
    const std::lock_guard lock(mutex_);
    is_same = in_place == last_.index && staged.index_text == last_.index_text;
  }
  std::future<void> index_staged;
  if (!is_same) {
    index_staged = std::async(beside_ ? std::launch::async : std::launch::deferred,
                              [&] { staged.index.emplace(wiki_ / kIndex, staged.index_text); });
  }
  staged.manifest.emplace(wiki_ / kManifest, manifest(content, staged.waiting));
  if (index_staged.valid()) index_staged.get();
  return staged;
}

std::shared_ptr<const utils::HeldFile> WikiLists::manifest_in_place() const {
  return std::make_shared<const utils::HeldFile>(wiki_ / kManifest);
}

bool WikiLists::is_current(const Staged& staged) const { return staged.over->is_in_place(); }

void WikiLists::place(Staged staged) {
  {
    const std::lock_guard lock(mutex_);
    last_.coming = staged.waiting.empty() ? staged.manifest->stamp() : utils::FileStamp{};
  }
  if (staged.index) staged.index->place();
  staged.manifest->place();
  staged.manifest->sync_directory();
  const std::lock_guard lock(mutex_);
  if (staged.index) {
    last_.index = staged.index->stamp();
    last_.index_text = std::move(staged.index_text);
  }
  last_.manifest = staged.manifest->stamp();
  last_.placed.emplace(*std::move(staged.manifest));
  last_.waiting = std::move(staged.waiting);
}

bool WikiLists::is_own(const utils::FileStamp& manifest) const {
  const std::lock_guard lock(mutex_);
  if (manifest == utils::FileStamp{}) return false;
  return (manifest == last_.manifest && last_.waiting.empty()) || manifest == last_.coming;
}

}  // namespace ossilar::workers::wiki
