// DbusNotificationCenter: distributed notifications as signals on the user's D-Bus session bus.
//
// A notification named N with object O is the signal N on interface org.tesselune.StoreSupport at
// path /org/tesselune/StoreSupport with the single string argument O, broadcast (no destination),
// so that the main application receives it by matching the interface and member.
//
// Failures are returned, never printed: what the program says about an unreachable bus (one line
// on standard output) is the caller's business, as it is for every other failure it reports.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/error.h"
#include "foundation/platform_seams.h"

namespace tesselune {

inline constexpr std::string_view kNotificationInterface = "org.tesselune.StoreSupport";
inline constexpr std::string_view kNotificationPath = "/org/tesselune/StoreSupport";
// The domain of this centre's failures; codes below.
inline constexpr std::string_view kNotificationErrorDomain = "org.tesselune.StoreSupport";
enum NotificationErrorCode : std::int64_t {
  kNotificationNoBusError = 1,        // no session bus address, or the bus cannot be reached
  kNotificationInvalidNameError = 2,  // the name cannot be a D-Bus member name
  kNotificationSendError = 3,         // the bus took the connection but not the signal
};

class DbusNotificationCenter : public DistributedNotificationCenter {
 public:
  // `busAddress` is a D-Bus address ("unix:path=..."); without one, the session bus is found at
  // each post from DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus when that socket exists.
  // Nothing is connected until the first post. Needs a QCoreApplication for the connection.
  explicit DbusNotificationCenter(std::optional<std::string> busAddress = std::nullopt);
  ~DbusNotificationCenter() override;
  DbusNotificationCenter(const DbusNotificationCenter&) = delete;
  DbusNotificationCenter& operator=(const DbusNotificationCenter&) = delete;

  // Sends the signal and returns once the bus has it (one round trip to the bus, never to a
  // listener). Thread-safe. Fails, with nothing sent, when no bus can be reached or the name is
  // not a valid member name (letters, digits and "_", not starting with a digit, at most 255).
  [[nodiscard]] Status postNotificationName(std::string_view name, std::string_view object) override;

 private:
  // The address to use now; nothing when no session bus is known.
  std::optional<std::string> resolveAddress() const;

  std::optional<std::string> fixedAddress_;
  std::mutex mutex_;
  std::string connectionName_;    // Qt's name for our private connection, unique per centre
  std::string connectedAddress_;  // the address connectionName_ is connected to; empty when none
};

// Whether `name` may be used as a D-Bus member (signal) name.
bool isValidMemberName(std::string_view name);

}  // namespace tesselune
