#include "ossilar/web/routes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/wiki_repo.h"

namespace ossilar::web {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::uint16_t kPort = 8411;

class RoutesTest : public ::testing::Test {
 protected:
  RoutesTest() {
    repo.dir.write("src/odd \"<i>#?.cpp", "int odd();\n");
    wiki = repo.open();
    EXPECT_TRUE(testing::is_saved(
        testing::save(*wiki, "alpha", testing::WikiRepo::text_about("alpha"), {}, "Former alpha")));
    EXPECT_TRUE(testing::is_saved(
        testing::save(*wiki, "alpha", testing::WikiRepo::text_about("alpha"), {}, "The <b>alpha</b> & co")));
  }

  Response get(const std::string& path, const std::string& query = "", const std::string& method = "GET",
               const std::string& host = "127.0.0.1:8411") {
    const utils::Task task;
    return respond({.method = method, .path = path, .query = query, .host = host}, *Site::now(wiki), kPort,
                   task);
  }

  static std::string header(const Response& response, const std::string& name) {
    for (const auto& [key, value] : response.headers)
      if (key == name) return value;
    return "";
  }

  testing::WikiRepo repo;
  std::shared_ptr<workers::wiki::Wiki> wiki;
};

TEST_F(RoutesTest, AnswersWhatThereIs) {
  const struct {
    const char* path;
    const char* holds;
  } kRows[] = {
      {"/", "<title>Home"},
      {"/index.html", "The &lt;b&gt;alpha&lt;/b&gt; &amp; co"},
      {"/pages/alpha.html", "<h2 id=\"s-one\">"},
      {"/pages/alpha.html", "href=\"../source/src/alpha.cpp.html#L1-L3\" class=\"cite\""},
      {"/pages/alpha.html", "assets/site.css"},
      {"/pages/beta.html", "planned and not written yet"},
      {"/source/src/alpha.cpp.html", "<span class=\"range\" id=\"L1-L3\">\n\n\n</span>"},
      {"/source/src/alpha.cpp.html",
       "href=\"../../pages/alpha.html\">The &lt;b&gt;alpha&lt;/b&gt; &amp; co</a>"},
      {"/source/src/beta.cpp.html", "No page cites this file"},
      {"/source/src/odd%20%22%3Ci%3E%23%3F.cpp.html", "src/odd &quot;&lt;i&gt;#?.cpp"},
      {"/state.html", "id=\"state-missing\""},
      {"/search.html", "<h1>Search</h1>"},
      {"/assets/site.js", "\"use strict\""},
  };
  for (const auto& row : kRows) {
    const Response response = get(row.path);
    EXPECT_EQ(response.status, 200) << row.path;
    EXPECT_THAT(response.body, HasSubstr(row.holds)) << row.path;
    EXPECT_THAT(header(response, "Content-Security-Policy"), HasSubstr("script-src 'self';")) << row.path;
    EXPECT_EQ(header(response, "X-Content-Type-Options"), "nosniff") << row.path;
  }
}

TEST_F(RoutesTest, FindsPagesByFormerTitlesAndBareIds) {
  for (const char* const path :
       {"/pages/alpha", "/pages/alpha.md", "/pages/Former%20alpha", "/pages/former%20ALPHA.html"}) {
    const Response response = get(path);
    EXPECT_EQ(response.status, 302) << path;
    EXPECT_EQ(header(response, "Location"), "/pages/alpha.html") << path;
  }
  EXPECT_THAT(get("/search.html", "Former%20alpha").body, HasSubstr("Page: <a href=\"pages/alpha.html\">"));
}

TEST_F(RoutesTest, Searches) {
  EXPECT_THAT(get("/search.json", "second").body, HasSubstr("\"url\": \"pages/alpha.html\""));
  EXPECT_THAT(get("/search.html", "second").body, HasSubstr("<h2><a href=\"pages/alpha.html\">"));
  EXPECT_THAT(get("/search.html", "%22%3E%3Cscript%3E").body, Not(HasSubstr("\"><script>")));
  EXPECT_EQ(get("/search.json", "%00").status, 200);
  EXPECT_THAT(get("/search.json", std::string(5000, 'a')).body, HasSubstr("\"error\""));
}

TEST_F(RoutesTest, ServesNothingFromOutside) {
  repo.dir.write(".ossilar/secret.cpp", "the secret\n");
  const char* const kPaths[] = {
      "/../etc/passwd",
      "/pages/../../etc/passwd",
      "/source/../ossilar.toml.html",
      "/source/..%2f..%2f..%2fetc/passwd.html",
      "/source/%2e%2e/%2e%2e/etc/passwd.html",
      "/source//etc/passwd.html",
      "/source/.ossilar/secret.cpp.html",
      "/source/.ossilar/index.db.html",
      "/source/src.html",
      "/source/src/",
      "/source/",
      "/source/src/alpha.cpp",
      "/source/src/alpha.cpp.html.html",
      "/source/src/nothing.cpp.html",
      "/pages/",
      "/pages/.html",
      "/pages/../index.html",
      "/pages/alpha/../beta.html",
      "/assets/",
      "/assets/../templates/page.html",
      "/templates/page.html",
      "/assets/..%2ftemplates/page.html",
      "/wiki/pages/alpha.md",
      "/.ossilar/index.db",
      "/ossilar.toml",
  };
  for (const char* const path : kPaths) {
    const Response response = get(path);
    EXPECT_EQ(response.status, 404) << path;
    EXPECT_THAT(response.body, Not(HasSubstr("secret"))) << path;
    EXPECT_THAT(response.body, HasSubstr("Not found")) << path;
  }
}

TEST_F(RoutesTest, RefusesWhatIsNoReadingOfThisSite) {
  const struct {
    const char* method;
    const char* path;
    const char* host;
    int status;
  } kRows[] = {
      {"GET", "/", "evil.example", 403},
      {"GET", "/", "evil.example:8411", 403},
      {"GET", "/", "127.0.0.1", 403},
      {"GET", "/", "127.0.0.1:80", 403},
      {"GET", "/", "127.0.0.1:8411.evil.example", 403},
      {"GET", "/", "localhost.evil.example:8411", 403},
      {"GET", "/", "", 403},
      {"GET", "/events", "evil.example:8411", 403},
      {"GET", "/", "LOCALHOST:8411", 200},
      {"HEAD", "/", "localhost:8411", 200},
      {"POST", "/", "localhost:8411", 405},
      {"PUT", "/pages/alpha.html", "localhost:8411", 405},
      {"DELETE", "/", "localhost:8411", 405},
      {"OPTIONS", "/", "localhost:8411", 405},
      {"get", "/", "localhost:8411", 405},
      {"GET", "/%", "localhost:8411", 400},
      {"GET", "/pages/alpha%00.html", "localhost:8411", 400},
      {"GET", "/%ff", "localhost:8411", 400},
      {"GET", "*", "localhost:8411", 400},
      {"GET", "http://127.0.0.1/", "localhost:8411", 400},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(get(row.path, "", row.method, row.host).status, row.status)
        << row.method << " " << row.path << " " << row.host;
  }
  EXPECT_EQ(get("/" + std::string(5000, 'a')).status, 414);
}

TEST_F(RoutesTest, LinksOfAMissingPageLeadHomeFromAnyFolder) {
  EXPECT_THAT(get("/a/b/c").body, HasSubstr("href=\"../../index.html\""));
  EXPECT_THAT(get("/a%2Fb").body, HasSubstr("href=\"index.html\""));
}

TEST_F(RoutesTest, SendsNothingAgainThatABrowserHas) {
  const std::string tag = header(get("/pages/alpha.html"), "ETag");
  const utils::Task task;
  Request request{.path = "/pages/alpha.html", .host = "localhost:8411", .if_none_match = tag};
  const Response same = respond(request, *Site::now(wiki), kPort, task);
  EXPECT_EQ(same.status, 304);
  EXPECT_EQ(same.body, "");
  EXPECT_TRUE(
      testing::is_saved(testing::save(*wiki, "alpha", testing::WikiRepo::text_about("alpha", "Otherwise."))));
  EXPECT_EQ(respond(request, *Site::now(wiki), kPort, task).status, 200);
}

TEST_F(RoutesTest, MarksWhatChangedWithOldAndNewText) {
  repo.dir.write("src/alpha.cpp", "int alpha1();\nint other();\nint alpha3();\nint alpha4();\n");
  const std::string body = get("/pages/alpha.html").body;
  EXPECT_THAT(body, HasSubstr("<span class=\"doubt doubt-changed\">"));
  EXPECT_THAT(body, HasSubstr("<del>-int alpha2();\n</del><ins>+int other();\n</ins>"));
  EXPECT_THAT(body, HasSubstr("<div class=\"notice state-stale\""));
  EXPECT_THAT(get("/state.html").body, HasSubstr("id=\"state-stale\""));
}

TEST_F(RoutesTest, SaysSoWhereAPageCannotBeShown) {
  repo.dir.write("wiki/pages/alpha.md", "# A\n\n<<<<<<< ours\nx\n=======\ny\n>>>>>>> theirs\n");
  EXPECT_THAT(get("/pages/alpha.html").body, HasSubstr("This page is being merged"));
  repo.dir.write("wiki/pages/alpha.md", "\xFF");
  EXPECT_THAT(get("/pages/alpha.html").body, HasSubstr("This page cannot be read"));
  std::filesystem::remove(repo.dir / "wiki/pages/alpha.md");
  EXPECT_THAT(get("/pages/alpha.html").body, HasSubstr("This page cannot be read"));
}

TEST_F(RoutesTest, OnlyPagesWithAnAuthorsDiagramsAllowStyles) {
  EXPECT_THAT(header(get("/pages/alpha.html"), "Content-Security-Policy"), Not(HasSubstr("unsafe-inline")));
  EXPECT_TRUE(testing::is_saved(
      testing::save(*wiki, "beta", testing::WikiRepo::text_about("beta") + "\n```mermaid\ngraph TD\n```\n")));
  const std::string policy = header(get("/pages/beta.html"), "Content-Security-Policy");
  EXPECT_THAT(policy, HasSubstr("style-src 'self' 'unsafe-inline'"));
  EXPECT_THAT(policy, HasSubstr("script-src 'self';"));
}

}  // namespace
}  // namespace ossilar::web
