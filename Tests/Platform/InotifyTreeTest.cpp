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
  std::vector<std::string> changes(InotifyTree& tree) {
    const auto paths = tree.take();
    if (!paths) return {"unknown"};
    std::vector<std::string> names;
    for (const auto& path : *paths) names.push_back(path.substr(directory_.path().size() + 1));
    return names;
  }
  using Names = std::vector<std::string>;
  TemporaryDirectory directory_;
};

TEST_F(InotifyTreeTest, namesTheFilesThatChangedAndNothingElse) {
  write("a/b/one");
  write("two");
  InotifyTree tree(directory_.path());
  EXPECT_EQ(changes(tree), Names{"unknown"});
  EXPECT_EQ(changes(tree), Names{});
  write("a/b/one");
  write("two");
  EXPECT_EQ(changes(tree), (Names{"a/b/one", "two"}));
  fs::remove(directory_.file("two"));
  EXPECT_EQ(changes(tree), Names{"two"});
  // A directory that appears with files in it already: they are named too.
  write("new/deeper/three");
  EXPECT_EQ(changes(tree), Names{"new/deeper/three"});
  write("new/deeper/three");
  EXPECT_EQ(changes(tree), Names{"new/deeper/three"});
}

TEST_F(InotifyTreeTest, saysThatItDoesNotKnowWhenDirectoriesMove) {
  write("a/one");
  InotifyTree tree(directory_.path());
  EXPECT_EQ(changes(tree), Names{"unknown"});
  fs::rename(directory_.file("a"), directory_.file("b"));
  EXPECT_EQ(changes(tree), Names{"unknown"});
  write("b/one");
  EXPECT_EQ(changes(tree), Names{"b/one"});
}

TEST_F(InotifyTreeTest, findsARootThatAppearsLater) {
  InotifyTree tree(directory_.file("root"));
  EXPECT_EQ(changes(tree), Names{"unknown"});
  EXPECT_EQ(changes(tree), Names{});
  write("root/one");
  EXPECT_EQ(changes(tree), Names{"unknown"});
  EXPECT_EQ(changes(tree), Names{});
  // And one that goes away and comes again.
  fs::remove_all(directory_.file("root"));
  EXPECT_EQ(changes(tree), Names{"unknown"});
  EXPECT_EQ(changes(tree), Names{});
  write("root/two");
  EXPECT_EQ(changes(tree), Names{"unknown"});
}

}  // namespace
}  // namespace vimbrel
