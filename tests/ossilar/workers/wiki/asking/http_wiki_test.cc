// A wiki whose embeddings come from a service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "ossilar/search/http_embedder.h"
#include "ossilar/workers/wiki/asking/wiki_reader.h"
#include "ossilar/workers/wiki/passages/reembedding.h"
#include "support/http_server.h"
#include "support/wiki_repo.h"

namespace ossilar::workers::wiki {
namespace {

using ::ossilar::testing::HttpServer;
using ::ossilar::testing::save;
using ::ossilar::testing::WikiRepo;
using ::testing::HasSubstr;

std::string config_for(const std::string& url) {
  return "[embedding]\nprovider = \"http\"\nurl = \"" + url + "\"\nmodel = \"m\"\n";
}

// A service that knows one thing: texts that hold "needle" are near to those that hold "haystack".
class HttpWiki : public ::testing::Test {
 protected:
  std::string answer(const HttpServer::Request& request) const {
    if (down_) return HttpServer::status("401 No");
    const Map input = Map::parse(request.body).at("input");
    Map data = Map::array();
    for (std::size_t i = 0; i < input.size(); ++i) {
      const auto text = input[i].get<std::string>();
      const bool hay = text.find("needle") != text.npos || text.find("haystack") != text.npos;
      data.push_back(Map{{"index", i}, {"embedding", Map::array({hay ? 1 : 0, hay ? 0 : 1})}});
    }
    return HttpServer::ok(Map{{"data", data}}.dump());
  }

  std::atomic<bool> down_ = false;
  HttpServer server_{[this](const HttpServer::Request& request) { return answer(request); }};
};

TEST_F(HttpWiki, FindsByMeaningAndSaysWhenItCannot) {
  const WikiRepo repo(config_for(server_.url()));
  const auto wiki = repo.open();
  ASSERT_TRUE(save(*wiki, "alpha", WikiRepo::text_about("alpha", "A haystack.")).contains("saved"));
  const auto found = WikiReader(*wiki).search({.query = "needle", .limit = 1}, {});
  EXPECT_EQ(std::get<SearchResult>(found).hits.at(0).section, "One") << "which holds no word of the query";

  down_ = true;
  const auto by_words = WikiReader(*wiki).search({.query = "haystack"}, {});
  EXPECT_EQ(std::get<SearchResult>(by_words).hits.at(0).section, "One");
  EXPECT_THAT(std::get<SearchResult>(by_words).warning,
              HasSubstr("searched by words only: the embedding service at"));
  EXPECT_THROW(save(*wiki, "beta", WikiRepo::text_about("beta")), search::EmbeddingError);
  EXPECT_FALSE(std::filesystem::exists(repo.dir / "wiki/pages/beta.md"));
  EXPECT_TRUE(save(*wiki, "alpha", WikiRepo::text_about("alpha", "A haystack.")).contains("saved"))
      << "text that is embedded already needs no service";
}

TEST_F(HttpWiki, NeverComparesVectorsOfTwoModels) {
  const WikiRepo repo;
  ASSERT_TRUE(save(*repo.open(), "alpha", WikiRepo::text_about("alpha", "A haystack.")).contains("saved"));
  repo.dir.write("ossilar.toml", config_for(server_.url()) + repo.dir.read("ossilar.toml"));
  const auto wiki = repo.open();
  EXPECT_TRUE(std::get<SearchResult>(WikiReader(*wiki).search({.query = "needle"}, {})).hits.empty());
  const auto change = embedding_change(wiki->store(), wiki->embedder());
  ASSERT_TRUE(change);
  EXPECT_THAT(change->from, HasSubstr("local"));
  utils::Task task;
  reembed(wiki->store(), wiki->embedder(), {}, task);
  const auto found = WikiReader(*wiki).search({.query = "needle", .limit = 1}, {});
  EXPECT_EQ(std::get<SearchResult>(found).hits.at(0).section, "One");
}

TEST_F(HttpWiki, NeedsItsKeyOnlyToEmbed) {
  const WikiRepo repo(config_for(server_.url()) + "api_key_env = \"OSSILAR_NO_SUCH_KEY\"\n");
  const auto wiki = repo.open();
  EXPECT_FALSE(WikiReader(*wiki).page_states().empty());
  EXPECT_THROW(save(*wiki, "alpha", WikiRepo::text_about("alpha")), utils::ConfigError);
  const auto found = WikiReader(*wiki).search({.query = "alpha"}, {});
  EXPECT_THAT(std::get<SearchResult>(found).warning, HasSubstr("OSSILAR_NO_SUCH_KEY"))
      << "reading needs no key";
}

}  // namespace
}  // namespace ossilar::workers::wiki
