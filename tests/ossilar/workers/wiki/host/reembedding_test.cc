#include "ossilar/workers/wiki/passages/reembedding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/search/chunking.h"
#include "ossilar/store/sqlite/sqlite_store.h"
#include "ossilar/utils/error.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

// An embedder of another model that fails after `batches_left` batches and calls `at_batch` at each.
class OtherEmbedder final : public search::Embedder {
 public:
  std::string model() const override { return "other"; }
  std::size_t dimensions() const override { return 2; }
  std::vector<std::vector<float>> embed(const std::vector<std::string>& texts, const utils::Task&) override {
    if (batches_left-- == 0) throw utils::Error("the service is down");
    embedded += texts.size();
    if (at_batch) at_batch();
    return std::vector<std::vector<float>>(texts.size(), {1.0F, 0.0F});
  }
  int batches_left = -1;
  std::size_t embedded = 0;
  std::function<void()> at_batch;
};

class Reembedding : public ::testing::Test {
 protected:
  Reembedding() {
    std::string text = "Many sections.\n";
    for (int i = 0; i < 100; ++i)
      text += "\n## S" + std::to_string(i) + "\n\nA [src/alpha.cpp:L1] [src/alpha.cpp:L2].\n";
    EXPECT_TRUE(testing::save(*wiki_, "alpha", text).contains("saved"));
  }
  std::size_t nearest_of(const std::string& model, const store::Vector& vector) {
    return store_->nearest("default", model, vector, {}, 1000).size();
  }

  testing::WikiRepo repo_;
  std::unique_ptr<Wiki> wiki_ = repo_.open();
  std::unique_ptr<store::WikiStore> store_ = store::open_sqlite_store(repo_.dir / ".ossilar/index.db");
  OtherEmbedder other_;
  utils::Task task_;
};

TEST_F(Reembedding, AChangedModelIsNoticedAndReplacesTheFormer) {
  EXPECT_FALSE(embedding_change(wiki_->store(), wiki_->embedder()));
  const auto change = embedding_change(*store_, other_);
  ASSERT_TRUE(change);
  EXPECT_EQ(change->to, "other");
  EXPECT_EQ(change->passages, 101U);
  EXPECT_EQ(nearest_of("other", {1, 0}), 0U) << "what is embedded with another model is not compared";

  std::size_t last = 0;
  reembed(
      *store_, other_,
      [&](std::size_t done, std::size_t total) {
        EXPECT_GT(done, std::exchange(last, done));
        EXPECT_EQ(total, 101U);
      },
      task_);
  EXPECT_EQ(last, 101U);
  EXPECT_FALSE(embedding_change(*store_, other_));
  EXPECT_EQ(nearest_of("other", {1, 0}), 101U);
  EXPECT_EQ(nearest_of(change->from, store::Vector(384, 0.1F)), 0U) << "the former vectors are gone";
}

TEST_F(Reembedding, ContinuesWhereItFailed) {
  other_.batches_left = 1;
  EXPECT_THROW(reembed(*store_, other_, {}, task_), utils::Error);
  const std::size_t before = other_.embedded;
  EXPECT_GT(before, 0U);
  EXPECT_TRUE(embedding_change(*store_, other_)) << "the former model stays as long as it is not done";
  other_.batches_left = -1;
  reembed(*store_, other_, {}, task_);
  EXPECT_EQ(other_.embedded, 101U) << "nothing twice";
}

TEST_F(Reembedding, EmbedsWhatIsSavedWithTheFormerModelInBetween) {
  int saves = 0;
  other_.at_batch = [&] {
    if (saves++ > 0) return;
    EXPECT_TRUE(testing::save(*wiki_, "alpha", testing::WikiRepo::text_about("alpha")).contains("saved"));
    EXPECT_TRUE(testing::save(*wiki_, "beta", testing::WikiRepo::text_about("beta")).contains("saved"));
  };
  reembed(*store_, other_, {}, task_);
  EXPECT_FALSE(embedding_change(*store_, other_));
  EXPECT_EQ(nearest_of("other", {1, 0}), 6U);
}

}  // namespace
}  // namespace ossilar::workers::wiki
