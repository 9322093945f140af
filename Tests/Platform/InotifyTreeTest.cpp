// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/InotifyTree.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

namespace fs = std::filesystem;

class InotifyTreeTest : public testing::Test {
 protected:
  void write(const std::string& name) {
    fs::create_directories(fs::path(directory_.file(name)).parent_path());
    std::ofstream(directory_.file(name), std::ios::app) << "x";
  }
  std::string changes(InotifyTree& tree) {
    const auto paths = tree.take();
    if (!paths) return "unknown";
    std::string names;
    for (const auto& path : *paths) names += " " + path.substr(directory_.path().size() + 1);
    return names;
  }
  TemporaryDirectory directory_;
};

TEST_F(InotifyTreeTest, namesTheFilesThatChangedAndNothingElse) {
  write("a/b/one");
  write("two");
  InotifyTree tree(directory_.path());
  EXPECT_EQ(changes(tree), "unknown");
  EXPECT_EQ(changes(tree), "");
  write("a/b/one");
  write("two");
  EXPECT_EQ(changes(tree), " a/b/one two");
  fs::remove(directory_.file("two"));
  EXPECT_EQ(changes(tree), " two");
  // A directory that appears with files in it already: they are named too.
  write("new/deeper/three");
  EXPECT_EQ(changes(tree), " new/deeper/three");
  write("new/deeper/three");
  EXPECT_EQ(changes(tree), " new/deeper/three");
}

TEST_F(InotifyTreeTest, saysThatItDoesNotKnowWhenDirectoriesMove) {
  write("a/one");
  InotifyTree tree(directory_.path());
  EXPECT_EQ(changes(tree), "unknown");
  fs::rename(directory_.file("a"), directory_.file("b"));
  EXPECT_EQ(changes(tree), "unknown");
  write("b/one");
  EXPECT_EQ(changes(tree), " b/one");
}

TEST_F(InotifyTreeTest, findsARootThatAppearsLater) {
  InotifyTree tree(directory_.file("root"));
  EXPECT_EQ(changes(tree), "unknown");
  EXPECT_EQ(changes(tree), "");
  write("root/one");
  EXPECT_EQ(changes(tree), "unknown");
  EXPECT_EQ(changes(tree), "");
  // And one that goes away and comes again.
  fs::remove_all(directory_.file("root"));
  EXPECT_EQ(changes(tree), "unknown");
  EXPECT_EQ(changes(tree), "");
  write("root/two");
  EXPECT_EQ(changes(tree), "unknown");
}

}  // namespace
}  // namespace vimbrel
