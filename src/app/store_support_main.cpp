// tesselune-store-support: the store support program. The main application starts it, without
// arguments, after marking objects for deletion; it deletes them with everything that hangs off
// them, removes their data folders, leaves a deletion report, tells the main application and quits.
// It shows nothing but alerts: message boxes when there is a screen, text on standard error when
// there is none, so that a run without a display never waits for a person.
//
// Arguments are accepted and ignored, as a desktop session may pass some of its own (Qt takes those
// it knows). Two are answered instead: "--help" and "--version" print one short text and the
// program ends without opening the store. The exit status is 0 in every case.
#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "app/app_delegate.h"
#include "app/version.h"
#include "foundation/main_queue.h"
#include "foundation/process_info.h"
#include "platform/dbus_notification_center.h"
#include "platform/proc_workspace.h"
#include "platform/qt_alert_presenter.h"
#include "platform/qt_main_queue.h"
#include "platform/syslog_log.h"
#include "platform/xdg_group_container.h"

namespace {

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

// A widget application needs a screen, and Qt ends the process when its platform cannot reach
// one. So widgets are used only when there is a display to try, with Qt's offscreen platform as
// the fallback when it cannot be reached (alerts then go to standard error); with no display at
// all a core application is enough. A platform chosen by the user is left alone.
std::unique_ptr<QCoreApplication> makeApplication(int& argc, char** argv) {
  if (!environmentValue("QT_QPA_PLATFORM").empty()) return std::make_unique<QApplication>(argc, argv);
  std::string platforms;
  if (!environmentValue("WAYLAND_DISPLAY").empty()) platforms += "wayland;";
  if (!environmentValue("DISPLAY").empty()) platforms += "xcb;";
  if (platforms.empty()) return std::make_unique<QCoreApplication>(argc, argv);
  qputenv("QT_QPA_PLATFORM", QByteArray::fromStdString(platforms + "offscreen"));
  return std::make_unique<QApplication>(argc, argv);
}

constexpr std::string_view kHelp =
    "Usage: tesselune-store-support\n"
    "\n"
    "The store support program of Tesselune. Tesselune starts it, without arguments, after marking\n"
    "objects of its shared store for deletion. It deletes the marked objects with everything that\n"
    "hangs off them, removes their data folders, leaves a deletion report in the data library's\n"
    "temporaryFiles folder, tells Tesselune over the session bus and quits. It shows nothing but\n"
    "alerts (on standard error when there is no display); its log lines go to the system log.\n"
    "\n"
    "Other arguments are ignored.\n"
    "\n"
    "Options:\n"
    "  --help     print this text and exit\n"
    "  --version  print the version and exit\n";

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument == "--help" || argument == "-h") {
      std::cout << kHelp;
      return 0;
    }
    if (argument == "--version") {
      std::cout << tesselune::versionText("tesselune-store-support") << "\n";
      return 0;
    }
  }

  using namespace tesselune;
  // The program's identifier, as its bundle would carry it: what the store's history names as the
  // bundle of the changes this program makes.
  setMainBundleIdentifier("org.tesselune.StoreSupport");
  std::unique_ptr<QCoreApplication> application = makeApplication(argc, argv);
  auto queue = std::make_shared<QtMainQueue>();
  setMainQueue(queue);

  StoreSupportServices services;
  services.alerts = std::make_shared<QtAlertPresenter>(queue);
  services.log = std::make_shared<SyslogLog>();
  services.notifications = std::make_shared<DbusNotificationCenter>();
  services.workspace = std::make_shared<ProcWorkspace>();
  services.groupContainers = std::make_shared<XdgGroupContainer>();
  // Behind every alert already queued, as the toolkit's own termination would be.
  services.terminate = [weakQueue = std::weak_ptr<QtMainQueue>(queue)] {
    if (auto held = weakQueue.lock()) held->quit();
  };
  services.homeFolder = [] { return QDir::homePath().toStdString(); };
  auto printMutex = std::make_shared<std::mutex>();
  services.printLine = [printMutex](const std::string& line) {
    std::lock_guard lock(*printMutex);
    std::cout << line << std::endl;
  };

  {
    AppDelegate delegate(services);
    if (delegate.applicationDidFinishLaunching()) {
      QCoreApplication::exec();
      // However the loop ended (our quit, or the session's), alerts asked for from now on are not
      // shown, and the passes still running, which the delegate waits for, never wait for one.
      queue->close();
      delegate.applicationWillTerminate();
    }
  }
  // The container is gone and its passes with it: nothing uses the main queue any more.
  setMainQueue(nullptr);
  return 0;
}
