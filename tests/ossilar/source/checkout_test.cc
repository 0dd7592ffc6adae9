#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/source/indexer.h"
#include "ossilar/source/repository.h"
#include "ossilar/utils/error.h"
#include "support/rows.h"

namespace ossilar::source {
namespace {

using ::ossilar::testing::Repository;
using ::ossilar::testing::rows_of;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::ThrowsMessage;

TEST(CheckoutTest, SaysNameBranchAndCommit) {
  for (const Map& row : rows_of("source/checkout.txt")) {
    SCOPED_TRACE(row);
    const Repository repository;
    repository.run(row.at(0));
    const Checkout checkout = read_checkout(repository / "r");
    const std::string branch = row.at(1);
    EXPECT_EQ(checkout.root, repository / "r");
    EXPECT_EQ(checkout.in_git, !branch.empty());
    EXPECT_EQ(checkout.branch, branch.empty() ? "default" : branch);
    EXPECT_THAT(checkout.commit, MatchesRegex(row.at(2) ? "[0-9a-f]{40}" : ""));
    EXPECT_EQ(checkout.name, row.at(3));
  }
}

TEST(CheckoutTest, WhatCannotBeReadIsAnErrorThatNamesTheRepository) {
  for (const Map& row : rows_of("source/unreadable_repositories.txt")) {
    SCOPED_TRACE(row);
    const Repository repository;
    repository.run(row.at(0));
    EXPECT_THAT([&] { read_checkout(repository.path()); },
                ThrowsMessage<utils::Error>(
                    AllOf(HasSubstr(std::string(row.at(1))), HasSubstr(repository.path().string()))));
  }
}

TEST(CheckoutTest, RootIsTheNearestFolderWithAMark) {
  const Repository folder;
  folder.run("mkdir -p a/.git a/b/c/.ossilar a/b/c/d; echo > a/b/ossilar.toml; ln -s a/b/c/d link");
  EXPECT_EQ(find_root(folder / "a/b/c/d"), folder / "a/b/c");
  EXPECT_EQ(find_root(folder / "a/b"), folder / "a/b");
  EXPECT_EQ(find_root(folder / "a"), folder / "a");
  EXPECT_EQ(find_root(folder / "link"), folder / "a/b/c");
  EXPECT_EQ(find_root(folder / "missing"), std::nullopt);
}

}  // namespace
}  // namespace ossilar::source
