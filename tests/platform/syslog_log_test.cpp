// The system log: messages reach syslog and are echoed only to a terminal.

#include "platform/syslog_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <string>

namespace tesselune {
namespace {

std::string readAvailable(int descriptor) {
  ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK);
  std::string text;
  char buffer[256];
  ssize_t n = 0;
  while ((n = ::read(descriptor, buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<std::size_t>(n));
  return text;
}

TEST(SyslogLogTest, EchoesEachMessageOnItsOwnLineToATerminal) {
  int controller = -1;
  int terminal = -1;
  ASSERT_EQ(::openpty(&controller, &terminal, nullptr, nullptr, nullptr), 0);
  ASSERT_TRUE(shouldEchoTo(terminal));
  {
    SyslogLog log(terminal);
    EXPECT_TRUE(log.echoes());
    log.log("Starting to delete a chromatogram");
    log.log("Ending store support application");
  }
  // The terminal turns each line feed into a carriage return and a line feed.
  EXPECT_EQ(readAvailable(controller),
            "Starting to delete a chromatogram\r\nEnding store support application\r\n");
  ::close(terminal);
  ::close(controller);
}

TEST(SyslogLogTest, LeavesPipesAndFilesAlone) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  EXPECT_FALSE(shouldEchoTo(ends[1]));
  EXPECT_FALSE(shouldEchoTo(-1));
  {
    SyslogLog log(ends[1]);
    EXPECT_FALSE(log.echoes());
    // Reaches syslog (or nowhere, where no log daemon listens) without a crash; text with a
    // format directive and an embedded NUL is sent as data.
    log.log("Sending global notification remoteObjectsDelete %s %n");
    log.log(std::string_view("before\0after", 12));
  }
  EXPECT_EQ(readAvailable(ends[0]), "");
  ::close(ends[0]);
  ::close(ends[1]);
}

}  // namespace
}  // namespace tesselune
