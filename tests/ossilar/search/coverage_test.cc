#include "ossilar/search/coverage.h"

#include <gtest/gtest.h>

#include "ossilar/search/word_table.h"

namespace ossilar::search {
namespace {

TEST(Coverage, IsTheShareOfTheQuestionsWeightThatATextHas) {
  const struct {
    const char *why, *question, *text;
    double least, most;
  } cases[] = {
      {"all words, in other forms", "how are the locks released", "Releasing a lock.", 1, 1},
      {"parts of identifiers", "write lock timeout", "`lock_timeout_s` of the writeLock", 1, 1},
      {"none", "mutex ownership", "Who holds the lock.", 0, 0},
      {"no content word in the question", "what is it about", "What it is about.", 0, 0},
      {"a common word alone counts for little", "function zzyzx", "A function.", 0.01, 0.49},
      {"an unknown word counts in full", "function zzyzx", "About ZZYZX.", 0.51, 0.99},
      {"a word that is asked for twice counts once", "lock lock zzyzx", "A lock.", 0.1, 0.5},
  };
  for (const auto& each : cases) {
    const double share = Coverage(each.question).of(each.text);
    EXPECT_GE(share, each.least) << each.why;
    EXPECT_LE(share, each.most) << each.why;
  }
}

TEST(WordTable, FindsStemsAndNothingElse) {
  const WordTable table;
  const auto rare = table.find("mutex");
  const auto common = table.find("file");
  ASSERT_TRUE(rare && common);
  EXPECT_LT(common->weight, rare->weight);
  EXPECT_LE(rare->weight, 1);
  for (const char* word : {"", "mutexe", "mutexes", "zzyzx", "\xFF", "0"})
    EXPECT_FALSE(table.find(word)) << word;
}

}  // namespace
}  // namespace ossilar::search
