// Group containers under the XDG data home.

#include "platform/xdg_group_container.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace tesselune {
namespace {

TEST(GroupContainerPathTest, DataHomeOrHomeAndOnlyPlainIdentifiers) {
  EXPECT_EQ(groupContainerPath("group.tesselune", "/data", "/home/u"),
            "/data/Group Containers/group.tesselune");
  EXPECT_EQ(groupContainerPath("group.tesselune", "/data/", "/home/u"),
            "/data/Group Containers/group.tesselune");
  EXPECT_EQ(groupContainerPath("group.tesselune", "", "/home/u"),
            "/home/u/.local/share/Group Containers/group.tesselune");
  // A relative data home is ignored.
  EXPECT_EQ(groupContainerPath("g", "relative/data", "/home/u/"), "/home/u/.local/share/Group Containers/g");
  EXPECT_EQ(groupContainerPath("g", "", ""), std::nullopt);

  for (std::string_view bad :
       {std::string_view(""), std::string_view("."), std::string_view(".."), std::string_view("../escape"),
        std::string_view("a/b"), std::string_view("a\0b", 3)}) {
    EXPECT_EQ(groupContainerPath(bad, "/data", "/home/u"), std::nullopt) << bad;
  }
}

TEST(XdgGroupContainerTest, AnswersAFolderUrlFromTheEnvironmentAndCreatesNothing) {
  const std::filesystem::path scratch =
      std::filesystem::temp_directory_path() / ("tesselune-xdg-" + std::to_string(::getpid()));
  XdgGroupContainer locator;

  ::setenv("XDG_DATA_HOME", (scratch / "data").c_str(), 1);
  const std::optional<Url> url = locator.containerUrlForGroupIdentifier("group.tesselune");
  ASSERT_TRUE(url);
  EXPECT_TRUE(url->isFileUrl());
  EXPECT_TRUE(url->hasDirectoryPath());
  EXPECT_EQ(url->path(), (scratch / "data/Group Containers/group.tesselune").string());
  EXPECT_EQ(url->lastPathComponent(), "group.tesselune");
  EXPECT_NE(url->absoluteString().find("Group%20Containers"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(scratch));

  ::unsetenv("XDG_DATA_HOME");
  const char* savedHome = std::getenv("HOME");
  const std::string home = savedHome != nullptr ? savedHome : "";
  ::setenv("HOME", (scratch / "home").c_str(), 1);
  const std::optional<Url> fallback = locator.containerUrlForGroupIdentifier("group.tesselune");
  ASSERT_TRUE(fallback);
  EXPECT_EQ(fallback->path(), (scratch / "home/.local/share/Group Containers/group.tesselune").string());
  EXPECT_EQ(locator.containerUrlForGroupIdentifier(".."), std::nullopt);
  ::setenv("HOME", home.c_str(), 1);
}

}  // namespace
}  // namespace tesselune
