// cmark-gfm parses the text and renders it in its safe mode; in between the tree is changed. A changed node
// is a "custom" one, which the renderer writes as it is, so everything put into one is escaped here.
//
// The links of brackets are recognised as in citations.cc: each label gets a definition with a target that no
// author can write.
#include "ossilar/web/markdown_page.h"

#include <cmark-gfm-core-extensions.h>
#include <cmark-gfm.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "ossilar/utils/hash.h"
#include "ossilar/utils/markdown.h"
#include "ossilar/utils/text.h"
#include "ossilar/web/address.h"
#include "ossilar/web/html.h"
#include "ossilar/workers/wiki/citing/claims.h"

namespace ossilar::web {
namespace {

using workers::wiki::Citation;
using workers::wiki::CitationState;

struct Freed {
  void operator()(cmark_node* node) const { cmark_node_free(node); }
  void operator()(cmark_parser* parser) const { cmark_parser_free(parser); }
  void operator()(cmark_iter* iter) const { cmark_iter_free(iter); }
  // What cmark_render_html() returns comes from the C library's malloc.
  void operator()(char* text) const { std::free(text); }  // NOLINT(cppcoreguidelines-no-malloc)
};

constexpr int kOptions = CMARK_OPT_DEFAULT | CMARK_OPT_VALIDATE_UTF8;

// As forges read it.
constexpr std::array kExtensions{"table", "strikethrough", "autolink"};

std::unique_ptr<cmark_node, Freed> parsed(std::string_view text) {
  static std::once_flag registered;
  std::call_once(registered, cmark_gfm_core_extensions_ensure_registered);
  const std::unique_ptr<cmark_parser, Freed> parser(cmark_parser_new(kOptions));
  for (const char* name : kExtensions) {
    if (cmark_syntax_extension* extension = cmark_find_syntax_extension(name))
      cmark_parser_attach_syntax_extension(parser.get(), extension);
  }
  cmark_parser_feed(parser.get(), text.data(), text.size());
  return std::unique_ptr<cmark_node, Freed>(cmark_parser_finish(parser.get()));
}

std::string_view literal_of(cmark_node* node) {
  const char* literal = cmark_node_get_literal(node);
  return literal == nullptr ? std::string_view() : std::string_view(literal);
}

bool is_type(cmark_node* node, cmark_node_type type) {
  return node != nullptr && cmark_node_get_type(node) == type;
}

bool is_named(cmark_node* node, std::string_view name) { return cmark_node_get_type_string(node) == name; }

bool is_block(cmark_node* node) {
  return (cmark_node_get_type(node) & CMARK_NODE_TYPE_MASK) == CMARK_NODE_TYPE_BLOCK;
}

std::string plain_text(cmark_node* root) {
  const std::unique_ptr<cmark_iter, Freed> iter(cmark_iter_new(root));
  std::string text;
  for (auto event = cmark_iter_next(iter.get()); event != CMARK_EVENT_DONE;
       event = cmark_iter_next(iter.get())) {
    if (event != CMARK_EVENT_ENTER) continue;
    cmark_node* node = cmark_iter_get_node(iter.get());
    if (is_type(node, CMARK_NODE_TEXT) || is_type(node, CMARK_NODE_CODE)) text += literal_of(node);
    if (is_type(node, CMARK_NODE_SOFTBREAK) || is_type(node, CMARK_NODE_LINEBREAK)) text += ' ';
  }
  return text;
}

cmark_node* custom(cmark_node_type type, const std::string& before, const std::string& after = "") {
  cmark_node* node = cmark_node_new(type);
  cmark_node_set_on_enter(node, before.c_str());
  cmark_node_set_on_exit(node, after.c_str());
  return node;
}

// Nodes that were taken out of the tree. They are kept until it is rendered: the texts in it are views of
// what the blocks that they were parsed in hold.
using Kept = std::vector<std::unique_ptr<cmark_node, Freed>>;

void replace(cmark_node* node, cmark_node* other, Kept& kept) {
  kept.emplace_back(cmark_node_replace(node, other) == 1 ? node : other);
}

// Puts `wrapper` in the place of `node`, with the children of `node` in it.
void replace_around_children(cmark_node* node, cmark_node* wrapper, Kept& kept) {
  while (cmark_node* child = cmark_node_first_child(node)) {
    if (cmark_node_append_child(wrapper, child) == 0) {
      cmark_node_unlink(child);
      kept.emplace_back(child);
    }
  }
  replace(node, wrapper, kept);
}

// ---- Links.

// What stands behind a definition that this file added.
struct Target {
  std::optional<Citation> citation;
  std::string page_id;
};

struct Defined {
  std::string text;  // the authored text with the definitions
  std::string stem;  // of their targets
  std::vector<Target> targets;
};

// The definitions are those that a save would write (page_links()), so that a reader here sees the same links
// as on a forge. They follow the text: an author's own definition of a label comes first and wins.
Defined with_definitions(const std::string& authored, const workers::wiki::Brackets& brackets,
                         const std::string& page_id, const std::string& wiki_dir) {
  std::map<std::string, Target> by_label;
  for (const auto& [label, citation] : brackets.citation_labels) by_label[label] = {citation, ""};
  for (const auto& [label, id] : brackets.page_labels) by_label[label] = {std::nullopt, id};
  Defined defined;
  defined.stem = "ossilar-" + utils::sha256_hex(authored) + "-";
  defined.text = authored + "\n" + utils::closing_line(authored) + "\n\n";
  // Control characters are no HTML. One byte for each, so that nothing else in the text changes.
  std::replace_if(
      defined.text.begin(), defined.text.end(),
      [](char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') || c == 0x7f; },
      '?');
  for (const auto& [label, target] : page_links(brackets, page_id, wiki_dir).targets) {
    const auto found = by_label.find(label);
    if (found == by_label.end()) continue;
    defined.text += "[" + label + "]: " + defined.stem + std::to_string(defined.targets.size()) + "\n";
    defined.targets.push_back(found->second);
  }
  return defined;
}

const Target* target_of(const Defined& defined, std::string_view url) {
  if (!url.starts_with(defined.stem)) return nullptr;
  url.remove_prefix(defined.stem.size());
  std::size_t number = 0;
  for (const char c : url) {
    if (c < '0' || c > '9' || number > defined.targets.size()) return nullptr;
    number = number * 10 + static_cast<std::size_t>(c - '0');
  }
  return number < defined.targets.size() ? &defined.targets[number] : nullptr;
}

// Whether the address has a scheme, and a reader may be sent to it. Control characters and blanks are
// refused: browsers drop them, so "java\nscript:" is a script.
enum class Scheme { none, allowed, refused };

Scheme scheme_of(std::string_view url) {
  for (const char c : url)
    if (static_cast<unsigned char>(c) <= ' ' || c == '\\' || c == 0x7f) return Scheme::refused;
  if (url.starts_with("//")) return Scheme::refused;  // another host, by whatever scheme the page has
  const std::size_t colon = url.find(':');
  if (colon == std::string_view::npos || url.find_first_of("/?#") < colon) return Scheme::none;
  const std::string scheme = utils::lower_case(url.substr(0, colon));
  return scheme == "http" || scheme == "https" || scheme == "mailto" ? Scheme::allowed : Scheme::refused;
}

// Of a path the last part: "atomic_file.h:L28-L40" for a long one, with the whole in the title.
std::string short_label(const Citation& citation) {
  const std::size_t slash = citation.path.rfind('/');
  const std::string name = slash == std::string::npos ? citation.path : citation.path.substr(slash + 1);
  return workers::wiki::citation_label({name, citation.first, citation.last});
}

std::string mark_class(CitationState state) { return workers::wiki::state_name(state); }

std::string citation_html(const Citation& citation, const std::string& address, const CitationMark* mark) {
  std::string html = address.empty() ? "<span" : "<a href=\"" + escaped(address) + "\"";
  html += " class=\"cite" + (mark != nullptr ? " cite-" + mark_class(mark->state) : std::string()) + "\"";
  std::string title = workers::wiki::citation_label(citation);
  if (mark != nullptr) title = mark->says;
  html += " title=\"" + escaped(title) + "\">" + escaped(short_label(citation));
  if (mark != nullptr) html += " <span class=\"cite-state\">" + mark_class(mark->state) + "</span>";
  return html + (address.empty() ? "</span>" : "</a>");
}

// ---- Sentences in doubt.

// Divides a text node before the byte `at` and gives the node of the second half.
cmark_node* split(cmark_node* node, std::size_t at) {
  const std::string text(literal_of(node));
  cmark_node* rest = cmark_node_new(CMARK_NODE_TEXT);
  cmark_node_set_literal(rest, text.substr(at).c_str());
  cmark_node_set_literal(node, text.substr(0, at).c_str());
  cmark_node_insert_after(node, rest);
  return rest;
}

// A sentence does not begin with the end of a line.
cmark_node* without_break(cmark_node* first, cmark_node* anchor) {
  while (first != anchor && is_type(first, CMARK_NODE_SOFTBREAK)) first = cmark_node_next(first);
  return first;
}

// The first node of the sentence that `anchor` stands in, among its siblings. A citation may stand behind the
// full stop, so what ends a sentence counts only once there is some text between.
cmark_node* sentence_begin(cmark_node* anchor) {
  cmark_node* first = anchor;
  bool has_text = false;
  for (cmark_node* node = cmark_node_previous(anchor); node != nullptr; node = cmark_node_previous(first)) {
    if (!is_type(node, CMARK_NODE_TEXT)) {
      has_text = has_text || !is_type(node, CMARK_NODE_CUSTOM_INLINE);
      if (is_type(node, CMARK_NODE_LINEBREAK)) break;
      first = node;
      continue;
    }
    const std::string text(literal_of(node));
    std::size_t end = text.size();
    if (!has_text) {
      while (end > 0 && std::string_view(" .!?([").find(text[end - 1]) != std::string_view::npos) --end;
    }
    has_text = has_text || end > 0;
    for (std::size_t at = end; at > 0; --at) {
      if (!workers::wiki::ends_sentence(text, at - 1)) continue;
      const std::size_t begin = text.find_first_not_of(' ', at);
      if (begin != std::string::npos) return split(node, begin);
      return without_break(first, anchor);
    }
    first = node;
  }
  return without_break(first, anchor);
}

// The last node of the sentence: up to the full stop, if the next text has one.
cmark_node* sentence_end(cmark_node* anchor) {
  cmark_node* next = cmark_node_next(anchor);
  if (!is_type(next, CMARK_NODE_TEXT)) return anchor;
  const std::string text(literal_of(next));
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (!workers::wiki::ends_sentence(text, at)) continue;
    if (at + 1 < text.size()) split(next, at + 1);
    return next;
  }
  return anchor;
}

// The child of the nearest block that `node` is or stands in.
cmark_node* below_block(cmark_node* node) {
  while (cmark_node_parent(node) != nullptr && !is_block(cmark_node_parent(node)))
    node = cmark_node_parent(node);
  return node;
}

// The labels "--- cited" and "+++ now" above the first hunk say what the colours do, and the hunks have the
// lines' numbers within the cited text only.
std::string diff_html(std::string_view diff) {
  std::string html = "<pre class=\"diff\"><code>";
  bool has_begun = false;
  for (const std::string_view line : utils::split_lines(diff)) {
    const bool is_hunk = line.starts_with("@@");
    has_begun = has_begun || is_hunk;
    if (is_hunk || !has_begun) continue;
    const bool is_old = line.starts_with("-");
    const bool is_new = line.starts_with("+");
    const std::string text = escaped(line) + "\n";
    html += is_old ? "<del>" + text + "</del>" : is_new ? "<ins>" + text + "</ins>" : text;
  }
  return html + "</code></pre>";
}

// What a reader opens below the paragraph to see how the cited text changed.
std::string change_html(const CitationMark& mark) {
  std::string html = "<details class=\"change change-" + mark_class(mark.state) + "\"><summary>" +
                     escaped(mark.says) + "</summary><div class=\"change-body\">";
  if (mark.diff) {
    html += mark.diff->empty() ? "<p>The text is the same.</p>" : diff_html(*mark.diff);
  } else if (mark.state != CitationState::moved) {
    html += "<p>The text that was cited is not kept anywhere.</p>";
  }
  if (!mark.now_address.empty())
    html += "<p><a href=\"" + escaped(mark.now_address) + "\">The lines as they are now</a></p>";
  return html + "</div></details>\n";
}

// ---- The page.

class PageTree {
  struct Image {
    cmark_node* node;
    bool is_linked;  // it stands in a link, where no other link may stand
  };

 public:
  PageTree(const Defined& defined, const std::vector<CitationMark>& marks, const PageAddresses& addresses)
      : defined_(defined), marks_(marks), addresses_(addresses), root_(parsed(defined.text)) {
    collect();
  }

  PageHtml html() {
    for (cmark_node* table : tables_) change_table(table);
    // Backwards: an image in the text of another comes after it, and goes with it.
    for (auto image = images_.rbegin(); image != images_.rend(); ++image) change_image(*image);
    for (cmark_node* link : links_)
      if (dropped_.count(link) == 0) change_link(link);
    for (const auto& [node, mark] : doubted_) mark_sentence(node, mark->state);
    // After the sentences, whose blocks must not be divided by then. In reverse, so that several of one
    // paragraph stand in the order of the text.
    for (auto doubt = doubted_.rbegin(); doubt != doubted_.rend(); ++doubt) {
      cmark_node_insert_after(block_to_follow(doubt->first),
                              custom(CMARK_NODE_CUSTOM_BLOCK, change_html(*doubt->second)));
    }
    for (cmark_node* heading : headings_) change_heading(heading);
    for (cmark_node* code : codes_) change_code(code);
    const std::unique_ptr<char, Freed> text(cmark_render_html(root_.get(), kOptions, nullptr));
    page_.html = text.get();
    return std::move(page_);
  }

 private:
  void mark_sentence(cmark_node* citation, CitationState state) {
    for (cmark_node* node = citation; node != nullptr && !is_block(node); node = cmark_node_parent(node))
      if (sentences_.count(node) > 0) return;  // two doubts of one sentence; the first decides its colour
    cmark_node* anchor = below_block(citation);
    cmark_node* first = sentence_begin(anchor);
    cmark_node* last = sentence_end(anchor);
    cmark_node* wrapper =
        custom(CMARK_NODE_CUSTOM_INLINE, "<span class=\"doubt doubt-" + mark_class(state) + "\">", "</span>");
    sentences_.insert(wrapper);
    cmark_node_insert_before(first, wrapper);
    for (cmark_node* node = first; node != nullptr;) {
      cmark_node* next = node == last ? nullptr : cmark_node_next(node);
      cmark_node_append_child(wrapper, node);
      node = next;
    }
  }

  // The tree is changed only when all nodes are known: an iterator does not survive a change around it.
  void collect() {
    const std::unique_ptr<cmark_iter, Freed> iter(cmark_iter_new(root_.get()));
    int open_links = 0;
    for (auto event = cmark_iter_next(iter.get()); event != CMARK_EVENT_DONE;
         event = cmark_iter_next(iter.get())) {
      cmark_node* node = cmark_iter_get_node(iter.get());
      if (is_type(node, CMARK_NODE_LINK)) open_links += event == CMARK_EVENT_ENTER ? 1 : -1;
      if (event != CMARK_EVENT_ENTER) continue;
      if (is_type(node, CMARK_NODE_LINK)) links_.push_back(node);
      if (is_type(node, CMARK_NODE_IMAGE)) images_.push_back({node, open_links > 0});
      if (is_type(node, CMARK_NODE_HEADING)) headings_.push_back(node);
      if (is_type(node, CMARK_NODE_CODE_BLOCK)) codes_.push_back(node);
      if (is_named(node, "table")) tables_.push_back(node);
    }
  }

  // The mark of the next citation of these lines, if that is in doubt.
  const CitationMark* next_mark(const Citation& citation) {
    for (std::size_t i = next_mark_; i < marks_.size(); ++i) {
      if (!(marks_[i].citation == citation)) continue;
      next_mark_ = i + 1;
      return &marks_[i];
    }
    return nullptr;
  }

  void change_link(cmark_node* link) {
    const std::string url(cmark_node_get_url(link));
    const Target* target = target_of(defined_, url);
    if (target != nullptr && target->citation) {
      const Citation& citation = *target->citation;
      const CitationMark* mark = next_mark(citation);
      cmark_node* shown =
          custom(CMARK_NODE_CUSTOM_INLINE, citation_html(citation, addresses_.lines(citation), mark));
      replace(link, shown, kept_);
      if (mark != nullptr) doubted_.emplace_back(shown, mark);
      return;
    }
    if (target != nullptr) return open_link(link, addresses_.page(target->page_id), "page-link");
    const Scheme scheme = scheme_of(url);
    if (scheme == Scheme::allowed) return open_link(link, url, "external");
    if (scheme == Scheme::refused) return open_link(link, "", "");
    if (url.starts_with("#")) return open_link(link, url, "anchor-link");
    open_link(link, addresses_.relative(url), "page-link");
  }

  // A link without an address leaves its text.
  void open_link(cmark_node* link, const std::string& address, const std::string& kind) {
    if (address.empty()) {
      replace_around_children(link, custom(CMARK_NODE_CUSTOM_INLINE, ""), kept_);
      return;
    }
    const std::string rel = kind == "external" ? " rel=\"noopener noreferrer\"" : "";
    replace_around_children(
        link,
        custom(CMARK_NODE_CUSTOM_INLINE,
               "<a class=\"" + kind + "\" href=\"" + escaped(address) + "\"" + rel + ">", "</a>"),
        kept_);
  }

  // Links in the image's text go with it.
  void change_image(const Image& image) {
    const std::string url(cmark_node_get_url(image.node));
    std::string text = plain_text(image.node);
    if (text.empty()) text = "image";
    const std::unique_ptr<cmark_iter, Freed> iter(cmark_iter_new(image.node));
    for (auto event = cmark_iter_next(iter.get()); event != CMARK_EVENT_DONE;
         event = cmark_iter_next(iter.get())) {
      if (is_type(cmark_iter_get_node(iter.get()), CMARK_NODE_LINK))
        dropped_.insert(cmark_iter_get_node(iter.get()));
    }
    const bool is_link = !image.is_linked && scheme_of(url) == Scheme::allowed;
    const std::string html =
        is_link ? "<a class=\"external\" rel=\"noopener noreferrer\" href=\"" + escaped(url) + "\">" : "";
    replace(image.node, custom(CMARK_NODE_CUSTOM_INLINE, html + escaped(text) + (is_link ? "</a>" : "")),
            kept_);
  }

  std::string unique_id(const std::string& text) {
    const std::string slug = title_slug(text);
    // A page has ids of its own; none of them has this form.
    const std::string id = "s-" + (slug.empty() ? "section" : slug);
    const int count = ++ids_[id];
    return count == 1 ? id : id + "." + std::to_string(count);
  }

  // The title is the page's only heading of level 1, and no level is left out: a screen reader lists them.
  void change_heading(cmark_node* heading) {
    const int level = std::clamp(cmark_node_get_heading_level(heading), 2, last_level_ + 1);
    last_level_ = level;
    const std::string text = plain_text(heading);
    const std::string id = unique_id(text);
    const std::string tag = "h" + std::to_string(level);
    replace_around_children(heading,
                            custom(CMARK_NODE_CUSTOM_BLOCK, "<" + tag + " id=\"" + escaped(id) + "\">",
                                   " <a class=\"anchor\" href=\"#" + encoded_path(id) +
                                       "\" aria-label=\"Link to this section\">#</a></" + tag + ">\n"),
                            kept_);
    page_.contents.push_back({level, id, text});
  }

  void change_code(cmark_node* code) {
    std::string_view info = cmark_node_get_fence_info(code);
    info = info.substr(0, info.find_first_of(" \t{,"));
    const std::string language = utils::lower_case(info);
    const bool is_mermaid = language == "mermaid";
    page_.has_mermaid = page_.has_mermaid || is_mermaid;
    page_.has_code = page_.has_code || (!is_mermaid && !language.empty());
    const std::string kind = language.empty() ? "" : " class=\"language-" + escaped(language) + "\"";
    const std::string block = is_mermaid ? "<pre class=\"mermaid-text\"" : "<pre class=\"code\"";
    replace(code,
            custom(CMARK_NODE_CUSTOM_BLOCK, block + " tabindex=\"0\"><code" + kind + ">" +
                                                escaped(literal_of(code)) + "</code></pre>\n"),
            kept_);
  }

  // A table's own nodes take no custom ones, so it becomes blocks of ours before its links are changed. A
  // wide one scrolls by itself; by keyboard too, so it can be focused.
  void change_table(cmark_node* table) {
    const std::uint16_t columns = cmark_gfm_extensions_get_table_columns(table);
    const std::uint8_t* alignments = cmark_gfm_extensions_get_table_alignments(table);
    cmark_node* frame =
        custom(CMARK_NODE_CUSTOM_BLOCK,
               "<div class=\"table-scroll\" tabindex=\"0\" role=\"region\" aria-label=\"Table\">\n<table>",
               "</table>\n</div>\n");
    for (cmark_node* row = cmark_node_first_child(table); row != nullptr; row = cmark_node_next(row)) {
      const bool is_head = is_named(row, "table_header");
      cmark_node* line = custom(CMARK_NODE_CUSTOM_BLOCK, is_head ? "<thead><tr>" : "<tr>",
                                is_head ? "</tr></thead>" : "</tr>");
      std::size_t column = 0;
      for (cmark_node* cell = cmark_node_first_child(row); cell != nullptr; cell = cmark_node_next(cell)) {
        const char alignment = column < columns ? static_cast<char>(alignments[column]) : '\0';
        ++column;
        const std::string kind = alignment == 'r'   ? " class=\"right\""
                                 : alignment == 'c' ? " class=\"center\""
                                                    : "";
        const std::string open = is_head ? "<th" : "<td";
        cmark_node* field = custom(CMARK_NODE_CUSTOM_BLOCK, open + kind + ">", is_head ? "</th>" : "</td>");
        while (cmark_node* child = cmark_node_first_child(cell)) cmark_node_append_child(field, child);
        cmark_node_append_child(line, field);
        table_parts_.insert(field);
      }
      cmark_node_append_child(frame, line);
      table_parts_.insert(line);
    }
    replace(table, frame, kept_);
  }

  // The nearest block after which another block may stand.
  cmark_node* block_to_follow(cmark_node* node) const {
    while (cmark_node_parent(node) != nullptr && (!is_block(node) || table_parts_.count(node) > 0))
      node = cmark_node_parent(node);
    return node;
  }

  const Defined& defined_;
  const std::vector<CitationMark>& marks_;
  const PageAddresses& addresses_;
  const std::unique_ptr<cmark_node, Freed> root_;
  std::vector<cmark_node*> links_, headings_, codes_, tables_;
  std::vector<Image> images_;
  Kept kept_;
  std::set<cmark_node*> dropped_;      // links in the texts of images
  std::set<cmark_node*> table_parts_;  // rows and cells
  std::set<cmark_node*> sentences_;    // the marks around those in doubt
  std::vector<std::pair<cmark_node*, const CitationMark*>> doubted_;
  std::size_t next_mark_ = 0;
  int last_level_ = 1;
  std::map<std::string, int> ids_;
  PageHtml page_;
};

}  // namespace

PageHtml page_html(const std::string& authored, const workers::wiki::Brackets& brackets,
                   const std::string& page_id, const std::string& wiki_dir,
                   const std::vector<CitationMark>& marks, const PageAddresses& addresses) {
  const Defined defined = with_definitions(authored, brackets, page_id, wiki_dir);
  return PageTree(defined, marks, addresses).html();
}

}  // namespace ossilar::web
