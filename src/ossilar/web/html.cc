// ctemplate and not the JSON-based template library that Debian has: that one escapes only where a template
// remembers to ask for it. The templates are loaded once into a cache that is then frozen: the library takes
// no lock to read a frozen cache.
#include "ossilar/web/html.h"

#include <ctemplate/template.h>
#include <ctemplate/template_cache.h>

#include <memory>
#include <stdexcept>

#include "ossilar/utils/text.h"
#include "ossilar/web/embedded.h"

namespace ossilar::web {
namespace {

constexpr std::string_view kFolder = "templates/";

std::unique_ptr<const ctemplate::TemplateCache> load_templates() {
  auto cache = std::make_unique<ctemplate::TemplateCache>();
  for (const std::string_view name : embedded_names()) {
    if (!name.starts_with(kFolder)) continue;
    const std::string_view text = *embedded_file(name);
    const std::string key(name.substr(kFolder.size()));
    if (!cache->StringToTemplateCache(key, text.data(), text.size(), ctemplate::STRIP_BLANK_LINES))
      throw std::logic_error("the template " + key + " is not well-formed");
  }
  cache->Freeze();
  return cache;
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string out;
  const std::string visible = utils::printable(text);
  out.reserve(visible.size() + visible.size() / 8);
  for (const char c : visible) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string expanded(const std::string& name, const ctemplate::TemplateDictionary& values) {
  static const std::unique_ptr<const ctemplate::TemplateCache> kTemplates = load_templates();
  std::string out;
  if (!kTemplates->ExpandNoLoad(name, ctemplate::STRIP_BLANK_LINES, &values, nullptr, &out))
    throw std::logic_error("the template " + name + " cannot be filled in");
  return out;
}

}  // namespace ossilar::web
