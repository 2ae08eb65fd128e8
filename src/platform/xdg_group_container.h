// XdgGroupContainer: where the folder shared by a group of applications lives on Linux,
// "$XDG_DATA_HOME/Group Containers/<identifier>", with the data home defaulting to ~/.local/share.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/platform_seams.h"
#include "foundation/url.h"

namespace tesselune {

class XdgGroupContainer : public GroupContainerLocator {
 public:
  // Reads XDG_DATA_HOME and HOME at each call, so a change of environment is seen. Creates
  // nothing: the folder may not exist yet. Thread-safe as long as nobody changes the environment
  // meanwhile.
  std::optional<Url> containerUrlForGroupIdentifier(std::string_view identifier) override;
};

// The rule itself. The data home is XDG_DATA_HOME when it is an absolute path (a relative one is
// ignored, as the XDG rules say), else <home>/.local/share. Nothing when neither is known, or when
// the identifier is empty, ".", "..", or holds "/" or NUL and so is not one folder name.
std::optional<std::string> groupContainerPath(std::string_view identifier, std::string_view xdgDataHome,
                                              std::string_view home);

}  // namespace tesselune
