// QtAlertPresenter: alerts as Qt message boxes when the program has a screen, and as a block of text
// on standard error when it runs without one, so that a headless run never waits for a person.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/error.h"
#include "foundation/main_queue.h"
#include "foundation/platform_seams.h"

class QMessageBox;

namespace tesselune {

// How alerts reach the user: Automatic decides per alert from the running application.
enum class AlertDisplay { Automatic, Widgets, Console };

class QtAlertPresenter : public AlertPresenter {
 public:
  // `mainQueue` is where alerts asked for on other threads are shown (the program's QtMainQueue);
  // going through it keeps alerts one at a time and in order with the alerts already queued there.
  // `console` receives the text form; it is not owned.
  explicit QtAlertPresenter(std::shared_ptr<MainQueue> mainQueue,
                            AlertDisplay display = AlertDisplay::Automatic, std::FILE* console = stderr);

  // With widgets: shows a modal box with one "OK" button and blocks until it is dismissed; on the
  // application's thread directly, from any other thread by queueing the box on the main queue
  // and waiting for it (so the main loop must be running). Answers 0, the index of the button.
  // On the console: writes the alert and answers 0 at once, on any thread.
  int runModal(const AlertContent& alert) override;

  // Whether the next alert would be a box rather than text.
  bool showsWidgets() const;

 private:
  std::shared_ptr<MainQueue> mainQueue_;
  AlertDisplay display_;
  std::FILE* console_;
};

// Whether message boxes can reach a person: there is a QApplication (not only a core or GUI
// application), its platform is not one of Qt's headless ones, and an X11 or Wayland platform has
// a display to talk to. The arguments are the application's state and the DISPLAY and
// WAYLAND_DISPLAY variables (empty when unset).
bool widgetsReachScreen(bool haveWidgetApplication, std::string_view platformName, std::string_view display,
                        std::string_view waylandDisplay);
// The same question asked of the running process.
bool widgetsReachScreen();

// The message box for an alert, not yet shown: critical, warning or informational icon, the
// message text, the informative text shown as written, one "OK" button. Application's thread.
std::unique_ptr<QMessageBox> makeMessageBox(const AlertContent& alert);

// The console form of an alert: a heading line with the style and the message text, then the
// informative text indented, line breaks of either kind shown as new lines.
std::string consoleAlertText(const AlertContent& alert);

}  // namespace tesselune
