#include "ossilar/store/store_copy.h"

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace ossilar::store {
namespace {

// Pages that share a transaction, to spare syncs: some MB.
constexpr std::size_t kPagesTogether = 32;

// All that a store holds of one page.
struct WholePage {
  std::optional<StoredPage> row = {};
  std::string mark = {};
  std::vector<Map> chunks = {};  // without embeddings
  std::map<std::string, Vector> vectors = {};
  std::set<std::string> cited = {};
  std::map<std::string, std::string> texts = {};
  std::vector<PageVersion> versions = {};

  bool operator==(const WholePage&) const = default;
};

// One branch of a store.
class Branch {
 public:
  Branch(WikiStore& store, std::string name)
      : store_(store), name_(std::move(name)), marks_(store.stale_marks(name_)) {}

  std::set<std::string> page_ids() const {
    std::set<std::string> ids = store_.pages_with_history(name_);
    store_.get_wiki_pages(name_).for_each(
        [&](const std::string& page_id, const Map& /*row*/) { ids.insert(page_id); });
    return ids;
  }

  WholePage page(const std::string& page_id) const {
    WholePage page{.row = store_.stored_page(name_, page_id), .versions = versions(page_id)};
    if (!page.row) return page;
    if (const auto mark = marks_.find(page_id); mark != marks_.end()) page.mark = mark->second;
    page.chunks = store_.chunks(name_, page_id);
    page.vectors = vectors_of(page.chunks);
    page.cited = store_.cited_versions(*store_.page_key(name_, page_id));
    for (const std::string& hash : page.cited)
      if (auto text = store_.cited_text(hash)) page.texts.emplace(hash, *std::move(text));
    return page;
  }

 private:
  std::vector<PageVersion> versions(const std::string& page_id) const {
    std::vector<PageVersion> versions = store_.page_versions(name_, page_id);
    for (PageVersion& each : versions)
      each.text = store_.version_text(name_, page_id, each.number).value_or("");
    return versions;
  }

  // All chunks of a page have one model, except in the moment of its change, when each may have its own.
  std::map<std::string, Vector> vectors_of(const std::vector<Map>& chunks) const {
    std::map<std::string, std::vector<std::string>> hashes;
    for (const Map& chunk : chunks) {
      hashes[utils::string_member(chunk, chunk_key::kModel)].push_back(
          utils::string_member(chunk, chunk_key::kHash));
    }
    std::map<std::string, Vector> vectors;
    for (const auto& [model, wanted] : hashes) vectors.merge(store_.vectors(model, wanted));
    return vectors;
  }

  WikiStore& store_;
  const std::string name_;
  const std::map<std::string, std::string> marks_;
};

// The row comes first: making it drops the stale mark.
void write_row(WikiStore& to, const std::string& branch, const std::string& page_id, const WholePage& page) {
  const std::int64_t key = to.upsert_wiki_page(branch, page_id, page.row->title, page.row->fields);
  if (!page.mark.empty()) to.mark_stale(branch, {{page_id, page.mark}});
  std::vector<Map> chunks = page.chunks;
  for (Map& chunk : chunks) {
    const auto vector = page.vectors.find(utils::string_member(chunk, chunk_key::kHash));
    chunk[chunk_key::kEmbedding] =
        vector == page.vectors.end() ? Map(nullptr) : embedding_form(vector->second);
  }
  to.store_chunks(key, chunks, {});
  to.keep_cited_texts(key, page.cited, page.texts);
}

void write_whole(WikiStore& to, const std::string& branch, const std::string& page_id,
                 const WholePage& page) {
  if (page.row) {
    write_row(to, branch, page_id, page);
  } else {
    to.remove_page(branch, page_id);
  }
  to.replace_versions(branch, page_id, page.versions);
}

void count(CopyCounts& counts, const WholePage& page) {
  ++counts.pages;
  counts.versions += page.versions.size();
  counts.passages += page.chunks.size();
  counts.texts += page.texts.size();
}

bool is_same_moment(const PageVersion& a, const PageVersion& b) {
  return a.number == b.number && a.version == b.version && a.at == b.at && a.client == b.client;
}

bool is_of_same_page(WikiStore& from, WikiStore& to, const std::string& branch, const std::string& page_id) {
  const std::vector<PageVersion> copied = to.page_versions(branch, page_id);
  if (copied.empty()) {
    const auto here = from.stored_page(branch, page_id);
    const auto there = to.stored_page(branch, page_id);
    return here && there && here->fields.content_hash == there->fields.content_hash;
  }
  const std::vector<PageVersion> known = from.page_versions(branch, page_id);
  return std::any_of(known.begin(), known.end(),
                     [&](const PageVersion& each) { return is_same_moment(each, copied.front()); });
}

[[noreturn]] void refuse_other_wiki(const std::string& branch, const std::string& page_id) {
  throw CopyRefused("the target holds another wiki or newer saves: its page " + page_id + " of the branch " +
                    branch + " is no version of the source's; name an empty one");
}

[[noreturn]] void report_difference(const std::string& branch, const std::string& what) {
  throw StorageError("the copy is not what was copied: " + what + " of the branch " + branch +
                     " differs; run the same command again");
}

void compare_facts(WikiStore& from, WikiStore& to, const std::string& branch) {
  bool differs = false;
  for_each_difference(from.load_digests(branch), to.load_digests(branch),
                      [&](const std::string& /*page_id*/, const Map* before, const Map* after) {
                        differs = differs || before == nullptr || after == nullptr || *before != *after;
                      });
  if (differs) report_difference(branch, "a digest");
  const auto state = from.wiki_state(branch);
  if (state && state != to.wiki_state(branch)) report_difference(branch, "the state");
}

void compare(WikiStore& from, WikiStore& to, const std::string& branch, const utils::Progress& progress,
             std::size_t total) {
  const Branch source(from, branch);
  const Branch target(to, branch);
  const std::set<std::string> ids = source.page_ids();
  if (ids != target.page_ids()) report_difference(branch, "the number of pages");
  std::size_t done = ids.size();
  for (const std::string& page_id : ids) {
    if (source.page(page_id) != target.page(page_id)) report_difference(branch, "the page " + page_id);
    progress(++done, total);
  }
  compare_facts(from, to, branch);
}

}  // namespace

void require_same_wiki(WikiStore& from, WikiStore& to, const std::string& branch) {
  for (const std::string& page_id : Branch(to, branch).page_ids())
    if (!is_of_same_page(from, to, branch, page_id)) refuse_other_wiki(branch, page_id);
}

CopyCounts copy_branch(WikiStore& from, WikiStore& to, const std::string& branch,
                       const utils::Progress& progress) {
  require_same_wiki(from, to, branch);
  const Branch source(from, branch);
  const std::set<std::string> wanted = source.page_ids();
  const std::vector<std::string> ids(wanted.begin(), wanted.end());
  const std::set<std::string> present = Branch(to, branch).page_ids();
  const std::size_t total = 2 * ids.size();  // each is copied and compared
  CopyCounts counts;
  for (std::size_t at = 0; at < ids.size();) {
    const std::size_t end = std::min(ids.size(), at + kPagesTogether);
    const auto transaction = to.begin("copy pages of the branch " + branch);
    const Branch target(*transaction, branch);
    for (; at < end; ++at) {
      const WholePage page = source.page(ids[at]);
      count(counts, page);
      if (present.count(ids[at]) > 0 && target.page(ids[at]) == page) {
        ++counts.present;
      } else {
        write_whole(*transaction, branch, ids[at], page);
      }
      progress(at + 1, total);
    }
    transaction->commit();
  }
  to.persist_digests(branch, from.load_digests(branch), {});
  if (const auto state = from.wiki_state(branch)) to.upsert_wiki_state(branch, *state);
  to.index_waiting_words(0);
  compare(from, to, branch, progress, total);
  return counts;
}

}  // namespace ossilar::store
