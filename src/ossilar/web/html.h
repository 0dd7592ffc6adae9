// Text as HTML, and the templates of the site.
//
// Every value that a template shows is escaped for the place where it stands (in text, an attribute, an
// address): ctemplate works that out from the template itself, so none can be forgotten. HTML that this
// program has made is marked in the template with `:none`; nothing else may be.
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <cstring>  // first: the next header uses strlen() without it

#include <ctemplate/template_dictionary.h>

#include <string>
#include <string_view>

namespace ossilar::web {

// `text` as text or as the value of a quoted attribute. Control characters become visible, as they are no
// HTML.
std::string escaped(std::string_view text);

// The template "page.html" of templates/ filled in. Throws std::logic_error for a template that is not there
// or not well-formed: a mistake in the program.
std::string expanded(const std::string& name, const ctemplate::TemplateDictionary& values);

}  // namespace ossilar::web
