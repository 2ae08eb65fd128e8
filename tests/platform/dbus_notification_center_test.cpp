// Distributed notifications on a private session bus that each test starts and stops.

#include "platform/dbus_notification_center.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDeadlineTimer>
#include <QObject>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "private_bus.h"
#include "qt_test_application.h"

extern char** environ;

namespace tesselune {
namespace {

// Receives the signals it is connected to.
class SignalRecorder : public QObject {
  Q_OBJECT
 public:
  std::vector<QDBusMessage> received;
 public slots:
  void onSignal(const QDBusMessage& message) { received.push_back(message); }
};

using test::PrivateBus;

class DbusNotificationCenterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tesselune::testing::testApplication();
    folder_ = std::filesystem::temp_directory_path() / ("tesselune-dbus-" + std::to_string(::getpid()));
    std::filesystem::remove_all(folder_);
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  // Connects a listener for remoteObjectsDelete on our interface and path.
  QDBusConnection listen(const std::string& address, SignalRecorder& recorder, const char* connectionName) {
    QDBusConnection connection =
        QDBusConnection::connectToBus(QString::fromStdString(address), connectionName);
    EXPECT_TRUE(connection.isConnected());
    EXPECT_TRUE(connection.connect(QString(), "/org/tesselune/StoreSupport", "org.tesselune.StoreSupport",
                                   "remoteObjectsDelete", &recorder, SLOT(onSignal(QDBusMessage))));
    return connection;
  }

  static bool waitFor(const SignalRecorder& recorder, std::size_t count) {
    QDeadlineTimer deadline(5000);
    while (recorder.received.size() < count && !deadline.hasExpired()) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return recorder.received.size() >= count;
  }

  std::filesystem::path folder_;
};

TEST_F(DbusNotificationCenterTest, ListenerReceivesTheSignalWithItsObject) {
  PrivateBus bus(folder_ / "one");
  ASSERT_FALSE(bus.address().empty());
  SignalRecorder recorder;
  QDBusConnection listener = listen(bus.address(), recorder, "listener-one");

  DbusNotificationCenter center(bus.address());
  ASSERT_TRUE(center.postNotificationName("remoteObjectsDelete", "Tesselune-storeSupport"));
  ASSERT_TRUE(center.postNotificationName("remoteObjectsDelete", "Ünïcode objéct"));
  // Another name is another member, which this listener does not match.
  ASSERT_TRUE(center.postNotificationName("otherNotification", "ignored"));
  ASSERT_TRUE(waitFor(recorder, 2));

  const QDBusMessage& first = recorder.received[0];
  EXPECT_EQ(first.type(), QDBusMessage::SignalMessage);
  EXPECT_EQ(first.interface(), "org.tesselune.StoreSupport");
  EXPECT_EQ(first.path(), "/org/tesselune/StoreSupport");
  EXPECT_EQ(first.member(), "remoteObjectsDelete");
  ASSERT_EQ(first.arguments().size(), 1);
  EXPECT_EQ(first.arguments()[0].toString(), "Tesselune-storeSupport");
  EXPECT_EQ(recorder.received[1].arguments()[0].toString(), QString::fromUtf8("Ünïcode objéct"));
  QCoreApplication::processEvents();
  EXPECT_EQ(recorder.received.size(), 2u);
  QDBusConnection::disconnectFromBus("listener-one");
}

// The session address is read at each post: a bus that went away is a failure, and the next bus
// is used once the environment names it.
TEST_F(DbusNotificationCenterTest, FollowsTheSessionAddressAcrossABusRestart) {
  DbusNotificationCenter center;
  auto first = std::make_unique<PrivateBus>(folder_ / "first");
  ::setenv("DBUS_SESSION_BUS_ADDRESS", first->address().c_str(), 1);
  EXPECT_TRUE(center.postNotificationName("remoteObjectsDelete", "Tesselune-storeSupport"));

  first.reset();
  const Status gone = center.postNotificationName("remoteObjectsDelete", "Tesselune-storeSupport");
  ASSERT_FALSE(gone);
  EXPECT_EQ(gone.error().domain(), kNotificationErrorDomain);

  PrivateBus second(folder_ / "second");
  ::setenv("DBUS_SESSION_BUS_ADDRESS", second.address().c_str(), 1);
  SignalRecorder recorder;
  QDBusConnection listener = listen(second.address(), recorder, "listener-second");
  EXPECT_TRUE(center.postNotificationName("remoteObjectsDelete", "again"));
  ASSERT_TRUE(waitFor(recorder, 1));
  EXPECT_EQ(recorder.received[0].arguments()[0].toString(), "again");
  QDBusConnection::disconnectFromBus("listener-second");
  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

TEST_F(DbusNotificationCenterTest, FailsWithoutABusOrWithABadName) {
  DbusNotificationCenter missing("unix:path=" + (folder_ / "no-such-socket").string());
  const Status unreachable = missing.postNotificationName("remoteObjectsDelete", "Tesselune-storeSupport");
  ASSERT_FALSE(unreachable);
  EXPECT_EQ(unreachable.error().code(), kNotificationNoBusError);
  EXPECT_TRUE(unreachable.error().localizedDescription().starts_with("The notification remoteObjectsDelete"));

  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  ::setenv("XDG_RUNTIME_DIR", folder_.c_str(), 1);  // holds no bus socket
  DbusNotificationCenter unknown;
  const Status none = unknown.postNotificationName("remoteObjectsDelete", "x");
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error().code(), kNotificationNoBusError);
  ::unsetenv("XDG_RUNTIME_DIR");

  for (const char* name : {"", "remote.Objects", "9lives", "with space"}) {
    const Status bad = missing.postNotificationName(name, "x");
    ASSERT_FALSE(bad) << name;
    EXPECT_EQ(bad.error().code(), kNotificationInvalidNameError) << name;
  }
  EXPECT_TRUE(isValidMemberName("remoteObjectsDelete"));
  EXPECT_TRUE(isValidMemberName("_x9"));
  EXPECT_FALSE(isValidMemberName(std::string(256, 'a')));
}

}  // namespace
}  // namespace tesselune

#include "dbus_notification_center_test.moc"
