#include "ossilar/source/imports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ossilar/source/language.h"
#include "support/rows.h"

namespace ossilar::source {
namespace {

using ::ossilar::testing::rows_of;
using ::testing::IsEmpty;

TEST(LanguageTest, DependsOnTheNameThenOnTheText) {
  for (const Map& row : rows_of("source/languages.txt")) {
    EXPECT_EQ(language_of(std::string(row.at(0)), std::string(row.at(1))), row.at(2)) << row;
  }
}

TEST(ImportsTest, ListsEachImportOnceAsWritten) {
  for (const Map& row : rows_of("source/imports.txt")) {
    EXPECT_EQ(Map(imports_of(std::string(row.at(0)), std::string(row.at(1)))), row.at(2)) << row;
  }
  EXPECT_THAT(imports_of("C", "#include \"\xff.h\""), IsEmpty()) << "no record could hold it";
}

}  // namespace
}  // namespace ossilar::source
