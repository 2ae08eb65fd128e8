// Distributed notifications over a private connection to the session bus.

#include "platform/dbus_notification_center.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QString>
#include <cstdlib>

namespace tesselune {

namespace {

// How long a post waits for the bus to answer; a live bus answers at once.
constexpr int kBusTimeoutMilliseconds = 5000;

Error busError(std::int64_t code, std::string_view name, std::string_view reason) {
  return Error(std::string(kNotificationErrorDomain), code,
               fmt::format("The notification {} could not be posted: {}", name, reason));
}

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::string(value) : std::string();
}

}  // namespace

bool isValidMemberName(std::string_view name) {
  if (name.empty() || name.size() > 255) return false;
  if (name.front() >= '0' && name.front() <= '9') return false;
  for (char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    if (!ok) return false;
  }
  return true;
}

DbusNotificationCenter::DbusNotificationCenter(std::optional<std::string> busAddress)
    : fixedAddress_(std::move(busAddress)),
      connectionName_(fmt::format("tesselune-notifications-{}", static_cast<const void*>(this))) {}

DbusNotificationCenter::~DbusNotificationCenter() {
  if (!connectedAddress_.empty()) QDBusConnection::disconnectFromBus(QString::fromStdString(connectionName_));
}

std::optional<std::string> DbusNotificationCenter::resolveAddress() const {
  if (fixedAddress_) return fixedAddress_;
  // Read at each post rather than through libdbus's own session lookup, which remembers the first
  // address it saw for the life of the process and may try to launch a bus.
  std::string address = environmentValue("DBUS_SESSION_BUS_ADDRESS");
  if (!address.empty()) return address;
  const std::string runtime = environmentValue("XDG_RUNTIME_DIR");
  if (runtime.empty()) return std::nullopt;
  const std::string socket = runtime + "/bus";
  struct stat info {};
  if (::stat(socket.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return std::nullopt;
  return "unix:path=" + socket;
}

Status DbusNotificationCenter::postNotificationName(std::string_view name, std::string_view object) {
  if (!isValidMemberName(name)) {
    return fail(busError(kNotificationInvalidNameError, name, "the name is not a valid D-Bus member name."));
  }
  std::lock_guard lock(mutex_);
  const std::optional<std::string> address = resolveAddress();
  if (!address) return fail(busError(kNotificationNoBusError, name, "no D-Bus session bus is known."));

  const QString connectionName = QString::fromStdString(connectionName_);
  // Qt hands back the existing connection under our name even when it has dropped or points at
  // another bus; start afresh in both cases.
  if (!connectedAddress_.empty()) {
    if (connectedAddress_ != *address || !QDBusConnection(connectionName).isConnected()) {
      QDBusConnection::disconnectFromBus(connectionName);
      connectedAddress_.clear();
    }
  }
  QDBusConnection connection =
      QDBusConnection::connectToBus(QString::fromStdString(*address), connectionName);
  if (!connection.isConnected()) {
    const std::string reason = connection.lastError().message().toStdString();
    QDBusConnection::disconnectFromBus(connectionName);
    return fail(busError(kNotificationNoBusError, name,
                         fmt::format("the session bus at {} cannot be reached ({}).", *address, reason)));
  }
  connectedAddress_ = *address;

  QDBusMessage signal = QDBusMessage::createSignal(
      QString::fromUtf8(kNotificationPath.data(), kNotificationPath.size()),
      QString::fromUtf8(kNotificationInterface.data(), kNotificationInterface.size()),
      QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size())));
  signal << QString::fromUtf8(object.data(), static_cast<qsizetype>(object.size()));
  if (!connection.send(signal)) {
    return fail(busError(kNotificationSendError, name, connection.lastError().message().toStdString()));
  }
  // Messages on one connection arrive in order, so once the bus answers this it holds the signal;
  // a program that quits right after posting must not lose it in an unflushed buffer.
  const QDBusMessage ping = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
      QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
  const QDBusMessage reply = connection.call(ping, QDBus::Block, kBusTimeoutMilliseconds);
  if (reply.type() == QDBusMessage::ErrorMessage) {
    return fail(busError(kNotificationSendError, name, reply.errorMessage().toStdString()));
  }
  return {};
}

}  // namespace tesselune
