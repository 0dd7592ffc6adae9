#include "ossilar/cli/manuals/version.h"

#include <cmark-gfm.h>
#include <curl/curl.h>
#include <git2.h>
#include <microhttpd.h>
#include <sqlite3.h>

#include <string>

#include "ossilar/mcp/protocol/revision.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/workers/wiki/pages/manifest.h"

namespace ossilar::cli {
namespace {

constexpr const char* kCompiler =
#if defined(__clang__)
    "Clang " __clang_version__;
#else
    "GCC " __VERSION__;
#endif

std::string git_version() {
  int major = 0;
  int minor = 0;
  int patch = 0;
  git_libgit2_version(&major, &minor, &patch);
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

}  // namespace

Map version_document() {
  return {{"name", "ossilar"},
          {"version", OSSILAR_VERSION},
          {"compiler", kCompiler},
          {"build", OSSILAR_BUILD_TYPE},
          {"libraries",
           {{"cmark-gfm", cmark_version_string()},
            {"libcurl", curl_version_info(CURLVERSION_NOW)->version},
            {"libgit2", git_version()},
            {"libmicrohttpd", MHD_get_version()},
            {"sqlite", sqlite3_libversion()}}},
          {"formats",
           {{"database", {{"reads_from", 1}, {"writes", store::sqlite_schema_version()}}},
            {"manifest",
             {{"reads_from", workers::wiki::kManifestFormats.front()},
              {"writes", workers::wiki::kManifestFormats.back()}}},
            {"protocol", mcp::revision_names()}}}};
}

}  // namespace ossilar::cli
