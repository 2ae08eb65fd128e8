// The seams through which the Qt-free layers reach the outside world. The program wires Linux
// implementations (Qt, D-Bus, /proc, syslog); tests wire fakes that record what happened. The main
// queue is the one further seam, in main_queue.h.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/error.h"
#include "foundation/url.h"

namespace tesselune {

// Shows alerts (NSAlert runModal).
class AlertPresenter {
 public:
  virtual ~AlertPresenter() = default;
  // Shows the alert and blocks until the user dismisses it; answers the button pressed (0 for the
  // only one). Called on the main queue or on a worker thread; implementations that need the main
  // thread hop to it themselves.
  virtual int runModal(const AlertContent& alert) = 0;
};

// The system log at its default level. Thread-safe.
class SystemLog {
 public:
  virtual ~SystemLog() = default;
  virtual void log(std::string_view message) = 0;
};

// Notifications to other processes of the same user (NSDistributedNotificationCenter). Thread-safe.
class DistributedNotificationCenter {
 public:
  virtual ~DistributedNotificationCenter() = default;
  // Posts at once, without waiting for listeners; fails when the bus cannot be reached.
  [[nodiscard]] virtual Status postNotificationName(std::string_view name, std::string_view object) = 0;
};

// The running applications (NSWorkspace runningApplications). Thread-safe.
class Workspace {
 public:
  virtual ~Workspace() = default;
  // Whether an application named `localizedName` runs, compared character for character. The
  // implementation holds the whole rule of what a process answers to: callers only ask.
  virtual bool isApplicationRunning(std::string_view localizedName) = 0;
};

// The folder shared by the applications of one group
// (containerURLForSecurityApplicationGroupIdentifier:). Thread-safe.
class GroupContainerLocator {
 public:
  virtual ~GroupContainerLocator() = default;
  // The container's folder URL; nothing when the group has no container.
  virtual std::optional<Url> containerUrlForGroupIdentifier(std::string_view identifier) = 0;
};

}  // namespace tesselune
