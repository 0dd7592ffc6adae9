// The index by which an export is searched in the browser.
//
// Thread-safety: any thread. Failures: a page that cannot be read is left out.
#pragma once

#include <string>

#include "ossilar/web/site.h"

namespace ossilar::web {

// A script that sets `window.ossilarIndex` to a list of [address, title, section, text], one for each section
// of a written page in the order of the pages. In a large wiki texts are cut, so that a browser can load it.
std::string search_index_script(const Site& site);

}  // namespace ossilar::web
