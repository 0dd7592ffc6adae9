// ossilar.toml: an error that says where, or a configuration that leads nowhere else.
#include <algorithm>
#include <filesystem>

#include "laws.h"
#include "ossilar/utils/error.h"
#include "ossilar/workers/wiki/config.h"

namespace wiki = ossilar::workers::wiki;
using ossilar::fuzz::require;

namespace {

bool stays_inside(const std::filesystem::path& path) {
  return path.is_relative() &&
         std::none_of(path.begin(), path.end(), [](const auto& part) { return part == ".."; });
}

void check(const wiki::WikiConfig& config) {
  require(stays_inside(config.dir), "the wiki is inside the repository", config.dir);
  for (const auto& page : config.pages) require(wiki::is_page_id(page.id), "a page id is one", page.id);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    check(wiki::parse_config(std::string_view(reinterpret_cast<const char*>(data), size), "ossilar.toml"));
  } catch (const ossilar::utils::ConfigError& error) {
    require(std::string_view(error.what()).starts_with("ossilar.toml"), "an error names the file",
            error.what());
  }
  return 0;
}
