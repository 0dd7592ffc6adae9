// Whether there is anything to do is decided by one digest of all that pages are made from: rendering is what
// takes time, and a page depends on many others by its tree, its links and its states. Files are not synced
// to disk: an export can be made again.
#include "ossilar/web/export.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "ossilar/utils/error.h"
#include "ossilar/utils/files.h"
#include "ossilar/utils/hash.h"
#include "ossilar/utils/text.h"
#include "ossilar/web/address.h"
#include "ossilar/web/embedded.h"
#include "ossilar/web/forge.h"
#include "ossilar/web/html.h"
#include "ossilar/web/lists_view.h"
#include "ossilar/web/page_view.h"
#include "ossilar/web/search_index.h"
#include "ossilar/web/source_view.h"

namespace ossilar::web {
namespace {

namespace fs = std::filesystem;

// The list of the export's files: a title, the digest of what they were made from, and a line for each with
// its size. A folder without it is not ours.
constexpr const char* kList = "ossilar-export.txt";
constexpr std::string_view kListTitle = "# The files of this export, for the next one. Made by ossilar.";

constexpr const char* kMermaid = "assets/mermaid.js";

struct FormerExport {
  std::string digest;
  std::map<std::string, std::uintmax_t> sizes;  // by address
};

FormerExport read_list(const fs::path& folder) {
  FormerExport former;
  const std::string text = utils::read_text_file_within(folder, folder / kList);
  const auto lines = utils::split_lines(text);
  if (lines.size() < 2 || lines[0] != kListTitle)
    throw utils::ConfigError(folder.string() + "/" + kList + " is no list of an export; remove it");
  former.digest = lines[1];
  for (std::size_t i = 2; i < lines.size(); ++i) {
    const std::size_t blank = lines[i].find(' ');
    if (blank == std::string_view::npos) continue;
    const std::string address(lines[i].substr(blank + 1));
    // The list is a file like any other, and what it names may be removed.
    if (resolved_path("", address) != address || address.empty()) continue;
    former.sizes[address] = std::strtoull(std::string(lines[i].substr(0, blank)).c_str(), nullptr, 10);
  }
  return former;
}

FormerExport former_export(const fs::path& folder) {
  std::error_code error;
  if (utils::is_regular_file(folder / kList)) return read_list(folder);
  if (fs::exists(folder) && !fs::is_directory(folder))
    throw utils::ConfigError(folder.string() + " is no folder");
  if (fs::exists(folder) && !fs::is_empty(folder, error))
    throw utils::ConfigError(folder.string() + " holds files that no export made; name an empty folder");
  return {};
}

// Feeds a hash with all that pages are made from.
std::string digest_of(const Site& site, const ExportOptions& options, const Edition& edition) {
  std::string all = std::string(OSSILAR_VERSION) + "\n" + options.base_url + "\n" + edition.forge + "\n" +
                    std::to_string(static_cast<int>(options.sources)) + "\n" + site.name() + "\n" +
                    site.commit() + "\n" + site.wiki().branch() + "\n";
  const auto add = [&all](std::string_view text) {
    all += utils::sha256_hex(text);
    all += '\n';
  };
  for (const std::string_view name : embedded_names()) add(*embedded_file(name));
  for (const auto& file : site.planned().index->files()) all += file->path + " " + file->sha256.hex() + "\n";
  const workers::wiki::Plans& plans = site.planned().plans;
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const workers::wiki::PagePlan& plan = plans[i];
    all += plan.page_id + "\n" + plan.title + "\n" + plan.description + "\n" + plan.type + "\n" +
           plan.parent + "\n" + utils::join(plan.related_pages, " ") + "\n" +
           utils::join(plan.source_files, " ") + "\n";
  }
  for (const workers::wiki::PageState& page : site.pages()) {
    all += page.page_id + " " + condition_name(page.condition) + " " + page.reason + "\n";
    if (const Map* row = site.rows().find(page.page_id)) add(utils::json_text(*row));
    if (!Site::is_written(page)) continue;
    try {
      add(page_text(site.wiki().paths(), page.page_id));
    } catch (const utils::Error& error) {
      all += error.what();
    }
  }
  return utils::sha256_hex(all);
}

bool is_complete(const fs::path& folder, const FormerExport& former) {
  return std::all_of(former.sizes.begin(), former.sizes.end(), [&](const auto& file) {
    std::error_code error;
    return fs::file_size(folder / file.first, error) == file.second && !error;
  });
}

// No link is followed below the folder: somebody may have put one where a file of ours is to lie.
void make_folders(const fs::path& folder, const fs::path& below) {
  fs::path path = folder;
  for (const fs::path& part : below) {
    path /= part;
    std::error_code error;
    if (fs::symlink_status(path, error).type() == fs::file_type::directory) continue;
    if (!fs::create_directory(path, error)) {
      if (fs::symlink_status(path).type() == fs::file_type::directory) continue;  // another thread made it
      throw utils::IoError("cannot create the folder " + path.string(), error ? error.value() : ENOTDIR);
    }
  }
}

// Whether the file was not there with these bytes.
bool write_if_changed(const fs::path& folder, const std::string& address, const std::string& bytes) {
  const fs::path path = folder / address;
  std::error_code error;
  if (fs::symlink_status(path, error).type() == fs::file_type::regular &&
      fs::file_size(path, error) == bytes.size()) {
    std::ifstream file(path, std::ios::binary);
    if (std::string(std::istreambuf_iterator<char>(file), {}) == bytes) return false;
  }
  make_folders(folder, fs::path(address).parent_path());
  const fs::path made =
      path.parent_path() / (".ossilar-" + utils::sha256_hex(address).substr(0, 16) + ".tmp");
  const utils::UniqueFd fd(
      open(made.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));  // NOLINT
  if (!fd) throw utils::IoError("cannot write " + path.string(), errno);
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t size = write(fd.get(), bytes.data() + at, bytes.size() - at);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) throw utils::IoError("cannot write " + path.string(), errno);
    at += static_cast<std::size_t>(size);
  }
  if (std::rename(made.c_str(), path.c_str()) != 0)
    throw utils::IoError("cannot write " + path.string(), errno);
  return true;
}

std::size_t remove_former(const fs::path& folder, const FormerExport& former,
                          const std::map<std::string, std::uintmax_t>& sizes) {
  std::size_t removed = 0;
  for (const auto& [address, size] : former.sizes) {
    if (sizes.count(address) > 0) continue;
    std::error_code ignored;
    fs::path path = folder / address;
    if (fs::symlink_status(path, ignored).type() == fs::file_type::regular && fs::remove(path, ignored))
      ++removed;
    // Folders that are empty now; one with a file of somebody else's stays.
    for (path = path.parent_path(); path != folder && fs::remove(path, ignored); path = path.parent_path()) {
    }
  }
  return removed;
}

struct Work {
  std::string address;
  std::function<std::string()> make;
};

std::string redirect_document(const std::string& address, const std::string& from) {
  ctemplate::TemplateDictionary values("redirect");
  values.SetValue("URL", way_to_root(from) + address);
  return expanded("redirect.html", values);
}

std::string sitemap(const Site& site, const std::string& base_url) {
  ctemplate::TemplateDictionary values("sitemap");
  values.AddSectionDictionary("PAGE")->SetValue("URL", base_url);
  for (const workers::wiki::PageState& page : site.pages()) {
    if (Site::is_written(page))
      values.AddSectionDictionary("PAGE")->SetValue("URL", base_url + page_address(page.page_id));
  }
  return expanded("sitemap.xml", values);
}

// Everything that the export consists of. Views of pages tell whether any has diagrams of an author's.
std::vector<Work> all_work(const Site& site, const Edition& edition, std::atomic<bool>& has_mermaid) {
  std::vector<Work> work;
  const auto add = [&](const std::string& address, auto view) {
    work.push_back({address, [&site, &edition, address, view] {
                      return view(Asked{site, edition, address});
                    }});
  };
  add(std::string(kHome), home_document);
  add(std::string(kStatePage), state_document);
  add(std::string(kSearchPage), [](const Asked& asked) { return search_document(asked, "", utils::Task()); });
  work.push_back({"search-index.js", [&site] { return search_index_script(site); }});
  for (const workers::wiki::PageState& page : site.pages()) {
    add("pages/" + page.page_id + ".html", [&page, &has_mermaid](const Asked& asked) {
      Document document = page_document(asked, page);
      if (document.has_mermaid) has_mermaid = true;
      return std::move(document.html);
    });
  }
  for (const auto& [former, page_id] : site.former_ids()) {
    const std::string address = page_address(former);
    work.push_back({address, [address, page_id = page_id] {
                      return redirect_document(page_address(page_id), address);
                    }});
  }
  for (const auto& [slug, page_id] : site.former_titles()) {
    work.push_back({"titles/" + slug + ".html", [slug = slug, page_id = page_id] {
                      return redirect_document(page_address(page_id), "titles/" + slug);
                    }});
  }
  if (edition.shown_sources != nullptr) {
    for (const std::string& path : *edition.shown_sources) {
      add("source/" + path + ".html", [path](const Asked& asked) {
        // A file that went in this moment: its page says so.
        return source_document(asked, path)
            .value_or(message_document(asked, path, "This file cannot be read."));
      });
    }
  }
  for (const std::string_view name : embedded_names()) {
    if (name.starts_with("assets/") && name != kMermaid)
      work.push_back({std::string(name), [name] { return std::string(*embedded_file(name)); }});
  }
  if (!edition.base_url.empty())
    work.push_back({"sitemap.xml", [&site, &edition] { return sitemap(site, edition.base_url); }});
  return work;
}

// Runs on all cores. The first failure ends it and is thrown.
class Writer {
 public:
  Writer(const fs::path& folder, const std::vector<Work>& work, const utils::Progress& progress)
      : folder_(folder), work_(work), progress_(progress) {}

  void run() {
    std::vector<std::thread> threads;
    const unsigned count = std::max(1U, std::thread::hardware_concurrency());
    threads.reserve(count);
    for (unsigned i = 1; i < count; ++i) threads.emplace_back([this] { take(false); });
    take(true);
    for (std::thread& thread : threads) thread.join();
    if (failure_) std::rethrow_exception(failure_);
  }

  std::size_t written() const { return written_; }
  std::map<std::string, std::uintmax_t> sizes() { return std::move(sizes_); }

 private:
  void take(bool tells) {
    for (std::size_t at = next_++; at < work_.size() && !failed_; at = next_++) {
      try {
        const std::string bytes = work_[at].make();
        if (write_if_changed(folder_, work_[at].address, bytes)) ++written_;
        const std::lock_guard lock(mutex_);
        sizes_[work_[at].address] = bytes.size();
      } catch (...) {
        const std::lock_guard lock(mutex_);
        if (!failure_) failure_ = std::current_exception();
        failed_ = true;
      }
      // The callback is the calling thread's.
      if (tells && progress_) progress_(std::min(at + 1, work_.size()), work_.size());
    }
  }

  const fs::path& folder_;
  const std::vector<Work>& work_;
  const utils::Progress& progress_;
  std::atomic<std::size_t> next_ = 0, written_ = 0;
  std::atomic<bool> failed_ = false;
  std::mutex mutex_;
  std::map<std::string, std::uintmax_t> sizes_;  // guarded by mutex_, as is the next
  std::exception_ptr failure_;
};

std::string list_text(const std::string& digest, const std::map<std::string, std::uintmax_t>& sizes) {
  std::string text = std::string(kListTitle) + "\n" + digest + "\n";
  for (const auto& [address, size] : sizes) text += std::to_string(size) + " " + address + "\n";
  return text;
}

// The files whose lines pages link to.
std::set<std::string> sources_to_show(const Site& site) {
  std::set<std::string> paths;
  for (const auto& [path, citing] : site.cited()) paths.insert(path);
  for (const workers::wiki::PageState& page : site.pages()) {
    for (const workers::wiki::Doubt& doubt : page.doubts)
      if (doubt.now) paths.insert(doubt.now->path);
  }
  std::erase_if(paths, [&](const std::string& path) {
    const source::SourceFile* file = site.planned().index->find(path);
    return file == nullptr || file->kind != source::FileKind::text;
  });
  return paths;
}

std::string checked_base(std::string base_url) {
  if (base_url.empty()) return "";
  const bool is_web = base_url.starts_with("https://") || base_url.starts_with("http://");
  if (!is_web || base_url.find_first_of("\"'<> \\?#") != std::string::npos)
    throw utils::ConfigError("--base-url must be an http or https address without a query");
  if (!base_url.ends_with("/")) base_url += '/';
  return base_url;
}

}  // namespace

ExportReport export_site(const Site& site, const ExportOptions& options, const utils::Progress& progress) {
  const std::set<std::string> shown = sources_to_show(site);
  Edition edition{.is_live = false, .sources = options.sources};
  edition.base_url = checked_base(options.base_url);
  if (options.sources == Sources::embedded) edition.shown_sources = &shown;
  if (options.sources == Sources::linked) {
    edition.forge = forge_address(site.origin(), site.commit());
    if (edition.forge.empty()) {
      throw utils::ConfigError(
          "no forge is known to link to: the remote `origin` names none; use --sources embed or none");
    }
  }
  const FormerExport former = former_export(options.folder);
  const std::string digest = digest_of(site, options, edition);
  if (former.digest == digest && is_complete(options.folder, former)) return {.files = former.sizes.size()};

  std::error_code error;
  fs::create_directories(options.folder, error);
  if (error) throw utils::IoError("cannot create " + options.folder.string(), error.value());
  // First without a digest and with all files of both: an export that is interrupted still knows its files.
  std::atomic<bool> has_mermaid = false;
  const std::vector<Work> work = all_work(site, edition, has_mermaid);
  std::map<std::string, std::uintmax_t> both = former.sizes;
  for (const Work& each : work) both.emplace(each.address, 0);
  both.emplace(kMermaid, 0);
  write_if_changed(options.folder, kList, list_text("", both));

  Writer writer(options.folder, work, progress);
  writer.run();
  ExportReport report{.written = writer.written()};
  std::map<std::string, std::uintmax_t> sizes = writer.sizes();
  // The largest file of all, so only where a page needs it.
  if (const auto mermaid = embedded_file(kMermaid); mermaid && has_mermaid) {
    report.written += write_if_changed(options.folder, kMermaid, std::string(*mermaid)) ? 1 : 0;
    sizes[kMermaid] = mermaid->size();
  }
  report.files = sizes.size();
  report.removed = remove_former(options.folder, former, sizes);
  write_if_changed(options.folder, kList, list_text(digest, sizes));
  return report;
}

}  // namespace ossilar::web
