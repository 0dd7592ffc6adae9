// Words without their endings, by Snowball's English stemmer (libstemmer): "locked", "locks" and "locking"
// are "lock". The keys of the word table are such stems.
//
// Thread-safety: an object belongs to one thread.
#pragma once

#include <memory>
#include <string_view>

struct sb_stemmer;

namespace ossilar::search {

class Stemmer {
 public:
  Stemmer();  // throws std::bad_alloc
  // `word` must be folded (utils::Token). The result is valid until the next call. Words that are not English
  // are cut where an English one of such an end would be.
  std::string_view stem(std::string_view word) const;

 private:
  struct Delete {
    void operator()(sb_stemmer* stemmer) const;
  };
  std::unique_ptr<sb_stemmer, Delete> stemmer_;
};

// Words that express relations and say little about what a text is about: "the", "which". `word` is folded
// and not stemmed.
bool is_function_word(std::string_view word);

}  // namespace ossilar::search
