// Writes the site of a wiki as files that any web server, or a browser from a disk, shows.
//
// Thread-safety: any thread; one export into a folder at a time. Failures: utils::ConfigError for a folder
// that holds something else and for options that do not fit, utils::IoError for what cannot be written. What
// was written before a failure stays, each file whole, and the next export goes on from there.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "ossilar/utils/task.h"
#include "ossilar/web/frame.h"

namespace ossilar::web {

struct ExportOptions {
  std::filesystem::path folder;  // absolute; made if it is not there
  std::string base_url = {};     // where it will stand, for canonical links and the sitemap; "" for nowhere
  Sources sources = Sources::embedded;
};

struct ExportReport {
  std::size_t files = 0;    // of the site
  std::size_t written = 0;  // those whose bytes were not there yet
  std::size_t removed = 0;  // of the former export, and not of this one
};

// The same wiki gives the same bytes. A file is written only if its bytes differ, and replaced whole; nothing
// is rendered if nothing changed that a page is made from. Only files of a former export are removed: the
// folder holds a list of them.
ExportReport export_site(const Site& site, const ExportOptions& options,
                         const utils::Progress& progress = {});

}  // namespace ossilar::web
