// Alerts as message boxes or console text.

#include "platform/qt_alert_presenter.h"

#include <QAbstractButton>
#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QString>
#include <QTextDocument>
#include <QThread>
#include <algorithm>
#include <cstdlib>
#include <future>

namespace tesselune {

namespace {

std::string_view styleName(AlertContent::Style style) {
  switch (style) {
    case AlertContent::Style::Informational:
      return "informational";
    case AlertContent::Style::Critical:
      return "critical";
    case AlertContent::Style::Warning:
      break;
  }
  return "warning";
}

QMessageBox::Icon iconFor(AlertContent::Style style) {
  switch (style) {
    case AlertContent::Style::Informational:
      return QMessageBox::Information;
    case AlertContent::Style::Critical:
      return QMessageBox::Critical;
    case AlertContent::Style::Warning:
      break;
  }
  return QMessageBox::Warning;
}

// Error texts break lines with carriage returns, which a terminal or a label would not show as
// breaks.
std::string withLineFeeds(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r') {
      out.push_back('\n');
      if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::string_view(value) : std::string_view();
}

// Runs on the application's thread.
int showMessageBox(const AlertContent& alert) {
  std::unique_ptr<QMessageBox> box = makeMessageBox(alert);
  box->exec();
  const int index = static_cast<int>(box->buttons().indexOf(box->clickedButton()));
  return index < 0 ? 0 : index;
}

}  // namespace

std::unique_ptr<QMessageBox> makeMessageBox(const AlertContent& alert) {
  auto box = std::make_unique<QMessageBox>();
  box->setIcon(iconFor(alert.style));
  box->setTextFormat(Qt::PlainText);
  box->setText(QString::fromStdString(withLineFeeds(alert.messageText)));
  // The informative label guesses its format; an error text that looks like markup must still be
  // shown as written.
  const QString informative = QString::fromStdString(withLineFeeds(alert.informativeText));
  box->setInformativeText(Qt::mightBeRichText(informative) ? Qt::convertFromPlainText(informative)
                                                           : informative);
  QAbstractButton* ok = box->addButton(QMessageBox::Ok);
  box->setDefaultButton(QMessageBox::Ok);
  box->setEscapeButton(ok);
  return box;
}

bool widgetsReachScreen(bool haveWidgetApplication, std::string_view platformName, std::string_view display,
                        std::string_view waylandDisplay) {
  if (!haveWidgetApplication) return false;
  if (platformName == "offscreen" || platformName == "minimal" || platformName == "minimalegl") return false;
  if (platformName == "xcb") return !display.empty();
  if (platformName.starts_with("wayland")) return !waylandDisplay.empty() || !display.empty();
  return true;
}

bool widgetsReachScreen() {
  const bool widgets = qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr;
  const std::string platform = widgets ? QGuiApplication::platformName().toStdString() : std::string();
  return widgetsReachScreen(widgets, platform, environment("DISPLAY"), environment("WAYLAND_DISPLAY"));
}

std::string consoleAlertText(const AlertContent& alert) {
  std::string text = "Alert (";
  text += styleName(alert.style);
  text += "): ";
  text += withLineFeeds(alert.messageText);
  text += '\n';
  const std::string informative = withLineFeeds(alert.informativeText);
  std::string_view rest = informative;
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    text += "    ";
    text += rest.substr(0, end);
    text += '\n';
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  return text;
}

QtAlertPresenter::QtAlertPresenter(std::shared_ptr<MainQueue> mainQueue, AlertDisplay display,
                                   std::FILE* console)
    : mainQueue_(std::move(mainQueue)), display_(display), console_(console) {}

bool QtAlertPresenter::showsWidgets() const {
  switch (display_) {
    case AlertDisplay::Widgets:
      return qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr;
    case AlertDisplay::Console:
      return false;
    case AlertDisplay::Automatic:
      break;
  }
  return widgetsReachScreen();
}

int QtAlertPresenter::runModal(const AlertContent& alert) {
  if (!showsWidgets()) {
    const std::string text = consoleAlertText(alert);
    // One write per alert: the stream's lock keeps alerts from several threads whole.
    std::fwrite(text.data(), 1, text.size(), console_);
    std::fflush(console_);
    return 0;
  }
  if (QThread::currentThread() == QCoreApplication::instance()->thread()) return showMessageBox(alert);

  // Only the block holds the promise: when the queue drops the block unrun (the program is
  // ending), the promise breaks and this thread goes on.
  auto answer = std::make_shared<std::promise<int>>();
  std::future<int> result = answer->get_future();
  mainQueue_->addOperationWithBlock(
      [answer = std::move(answer), alert] { answer->set_value(showMessageBox(alert)); });
  try {
    return result.get();
  } catch (const std::future_error&) {
    return 0;  // never shown
  }
}

}  // namespace tesselune
