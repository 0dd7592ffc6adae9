// JSON and the manifest made of it.
#include "laws.h"
#include "ossilar/utils/error.h"
#include "ossilar/utils/json.h"
#include "ossilar/workers/wiki/config.h"
#include "ossilar/workers/wiki/pages/manifest.h"

namespace wiki = ossilar::workers::wiki;
using ossilar::Map;
using ossilar::fuzz::require;

namespace {

void check_manifest(const wiki::ManifestContent& content) {
  for (const auto& [page_id, hashes] : content.described)
    require(wiki::is_page_id(page_id), "a page id is one", page_id);
  const std::string written = wiki::render_manifest({}, content.lines, content.lint);
  require(wiki::read_manifest(written).described == content.described, "a manifest reads as it was", written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const Map value = ossilar::utils::parse_json(text, "input");
    const std::string written = ossilar::utils::json_text(value);
    require(written.find('\n') == written.npos, "it is one line", written);
    using Library = nlohmann::json;
    require(Library::parse(written) == Library::parse(text), "it is what the library reads", written);
    const Map again = ossilar::utils::parse_json(written, "what was written");
    require(ossilar::utils::json_text(again) == written, "what was written reads as it was", written);
  } catch (const ossilar::utils::Error&) {
    // Refused.
  }
  check_manifest(wiki::read_manifest(text));
  return 0;
}
