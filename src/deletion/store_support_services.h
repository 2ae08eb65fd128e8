// StoreSupportServices: the outside world as the store support program meets it, handed to the
// containers, the deletion pass and the driver instead of being reached through globals. The
// program fills it with the Linux implementations (Qt, D-Bus, /proc, syslog); tests fill it with
// fakes that record what happened.
//
// A plain value of shared pointers: copies share the services, which are thread-safe themselves.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "foundation/platform_seams.h"

namespace tesselune {

struct StoreSupportServices {
  std::shared_ptr<AlertPresenter> alerts;
  std::shared_ptr<SystemLog> log;
  std::shared_ptr<DistributedNotificationCenter> notifications;
  std::shared_ptr<Workspace> workspace;
  std::shared_ptr<GroupContainerLocator> groupContainers;
  // NSApp terminate:: ends the program after what is already queued on the main queue.
  std::function<void()> terminate;
  // The user's home folder (NSHomeDirectory).
  std::function<std::string()> homeFolder;
  // One line on standard output (the program's internal diagnostics).
  std::function<void(const std::string&)> printLine;
};

}  // namespace tesselune
