#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "trace/FindFiles.h"
#include "trace/SortByWriteTime.h"
#include "trace/TraceFolder.h"

namespace QXUTIL {
namespace {

class FindFilesTest : public keltop::TraceFolder {};

File fileOf(std::string name, std::int64_t written) {
  File file;
  file.name = std::move(name);
  file.written = written;
  return file;
}

std::vector<std::string> sortedNames(const FindFiles& found) {
  std::vector<std::string> names;
  for (const auto& [time, file] : sortByWriteTime(found)) {
    names.push_back(file.name);
  }
  return names;
}

TEST_F(FindFilesTest, aSearchDescribesEachFileAndSkipsFolders) {
  makeFile(trace("a.ltt"), "12345", 100);
  makeFile(trace("b.ltx"), "");
  std::filesystem::create_directory(trace("c.ltt"));
  FindFiles found;
  EXPECT_EQ(found.search(traces().string(), "*.ltt"), 1U);
  ASSERT_EQ(found.files().size(), 1U);
  const File& file = found.files()[0];
  EXPECT_EQ(file.kind, File::Kind::file);
  EXPECT_EQ(static_cast<std::uint32_t>(file.kind), 1U);
  EXPECT_EQ(file.folder, traces().string());
  EXPECT_EQ(file.name, "a.ltt");
  EXPECT_EQ(file.path, trace("a.ltt"));
  EXPECT_EQ(file.size, 5U);
  EXPECT_EQ(file.accessed - file.written, 100);
}

TEST_F(FindFilesTest, aSearchReplacesTheOneBefore) {
  makeFile(trace("a.ltt"), "");
  FindFiles found;
  EXPECT_EQ(found.search(traces().string(), "*"), 1U);
  EXPECT_EQ(found.search(traces().string(), "*"), 1U);
  EXPECT_EQ(found.search((traces() / "missing").string(), "*"), 0U);
  EXPECT_TRUE(found.files().empty());
}

TEST_F(FindFilesTest, addedFilesAreKeptInTheirOrderUntilCleared) {
  FindFiles found;
  EXPECT_TRUE(found.add(fileOf("b", 1)));
  EXPECT_TRUE(found.add(fileOf("a", 1)));
  EXPECT_EQ(found.files()[0].name, "b");
  EXPECT_EQ(found.files()[1].name, "a");
  found.clear();
  EXPECT_TRUE(found.files().empty());
}

TEST(SortByWriteTime, theOldestComesFirstAndEqualTimesKeepTheirOrder) {
  FindFiles found;
  for (const auto& [name, written] : {std::pair("new", 1700000002), std::pair("same2", 1700000001),
                                      std::pair("same1", 1700000001), std::pair("old", 1700000000)}) {
    (void)found.add(fileOf(name, written));
  }
  EXPECT_EQ(sortedNames(found), (std::vector<std::string>{"old", "same2", "same1", "new"}));
}

TEST(SortByWriteTime, theKeyIsTheDecimalText) {
  FindFiles found;
  (void)found.add(fileOf("nine digits", 999999999));
  (void)found.add(fileOf("ten digits", 1000000000));
  EXPECT_EQ(sortedNames(found), (std::vector<std::string>{"ten digits", "nine digits"}));
  EXPECT_EQ(sortByWriteTime(found).begin()->first, "1000000000");
}

}  // namespace
}  // namespace QXUTIL
