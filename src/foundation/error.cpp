// The program's error builders and alert texts. Line breaks inside error texts are carriage returns
// and in alert texts line feeds and tabs; the main application shows both as they are, and the odd
// spellings ("ocurred") are the program's own.
#include "foundation/error.h"

#include <fmt/format.h>

namespace tesselune {

Error Error::customErrorWithDomain(std::string domain, std::int64_t code,
                                   std::string_view errorMessage) const {
  const std::string& cause = localizedDescription();
  std::string text;
  if (errorMessage.empty()) {
    text = cause;
  } else if (!cause.empty()) {
    text = fmt::format("{}\rReason: {}", errorMessage, cause);
  } else {
    text = std::string(errorMessage);
  }
  return Error(std::move(domain), code, std::move(text), debugDetail_);
}

std::string Error::debugDescription() const {
  if (debugDetail_.empty()) return fmt::format("{} {}: {}", domain_, code_, description_);
  return fmt::format("{} {}: {} [{}]", domain_, code_, description_, debugDetail_);
}

Error customErrorWithDomain(std::string domain, std::int64_t code, std::string errorMessage) {
  return Error(std::move(domain), code, std::move(errorMessage));
}

std::optional<Error> customErrorFromErrors(const std::vector<Error>& errors, std::int64_t code,
                                           std::string_view errorMessage) {
  if (errors.empty()) return std::nullopt;
  std::string reasons;
  if (errors.size() == 1) {
    reasons = "Reason: " + errors.front().localizedDescription();
  } else {
    reasons = "Reasons:\r";
    for (std::size_t i = 0; i < errors.size(); ++i) {
      reasons += fmt::format("{} : {}\r", i + 1, errors[i].localizedDescription());
      if (i + 1 == 6) {
        reasons += "...";
        break;
      }
    }
  }
  std::string text = errorMessage.empty() ? std::move(reasons) : fmt::format("{}\r{}", errorMessage, reasons);
  return Error(errors.front().domain(), code, std::move(text));
}

AlertContent errorAlertContent(const Error& error, const std::optional<std::string>& message) {
  return AlertContent{AlertContent::Style::Critical, message.value_or("An Error Occurred."),
                      error.localizedDescription()};
}

std::optional<AlertContent> alertFor(const std::vector<Error>& errors,
                                     const std::optional<std::string>& activityMessage) {
  if (errors.empty()) return std::nullopt;
  const bool hasActivity = activityMessage && !activityMessage->empty();
  AlertContent alert;
  alert.style = AlertContent::Style::Informational;
  if (errors.size() == 1) {
    alert.messageText =
        hasActivity ? fmt::format("An error ocurred  {}.", *activityMessage) : "An error occurred.";
    alert.informativeText = "Error: " + errors.front().localizedDescription();
    return alert;
  }
  alert.messageText =
      hasActivity ? fmt::format("Several errors ocurred {}.", *activityMessage) : "Several error occurred.";
  alert.informativeText = "Errors:\n";
  const std::size_t listed = std::min<std::size_t>(errors.size(), 4);
  for (std::size_t i = 0; i < listed; ++i) {
    alert.informativeText += fmt::format("\t{}. {} \n", i + 1, errors[i].localizedDescription());
  }
  if (errors.size() > 4) alert.informativeText += "...";
  return alert;
}

}  // namespace tesselune
