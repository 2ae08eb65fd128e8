// Error: the failure value of this code base (NSError), and the builders of the program's
// user-facing errors and alert texts.
//
// Fallible operations return std::expected<T, Error>. An Error carries a domain, a signed 64-bit code
// and its whole user-facing text; a cause is folded into the text, never kept as an object.
// All functions here are pure and thread-safe.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tesselune {

class Error {
 public:
  Error() = default;
  Error(std::string domain, std::int64_t code, std::string description)
      : domain_(std::move(domain)), code_(code), description_(std::move(description)) {}
  // With what a developer needs and the user does not read (an SQL statement, a result code, a path).
  Error(std::string domain, std::int64_t code, std::string description, std::string debugDetail)
      : domain_(std::move(domain)),
        code_(code),
        description_(std::move(description)),
        debugDetail_(std::move(debugDetail)) {}

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  // The text under NSLocalizedDescriptionKey: everything the user reads.
  const std::string& localizedDescription() const { return description_; }

  // For logs only, never shown to the user: the platform's detail of the failure (empty for the
  // program's own errors).
  const std::string& debugDetail() const { return debugDetail_; }

  // Instance form of customErrorWithDomain:code:errorMessage:, sent to the cause. The new error's
  // text is the message, a carriage return, "Reason: " and this error's text; either part alone
  // when the other is empty. The cause's debug detail goes along, for the log.
  [[nodiscard]] Error customErrorWithDomain(std::string domain, std::int64_t code,
                                            std::string_view errorMessage) const;

  // "<domain> <code>: <text>", and " [<detail>]" when there is a detail; for logs and test output.
  std::string debugDescription() const;

  friend bool operator==(const Error&, const Error&) = default;

 private:
  std::string domain_;
  std::int64_t code_ = 0;
  std::string description_;
  std::string debugDetail_;
};

template <class T>
using Expected = std::expected<T, Error>;
using Status = std::expected<void, Error>;

// Shorthand for returning a failure: `return fail(error);`.
inline std::unexpected<Error> fail(Error error) {
  return std::unexpected<Error>(std::move(error));
}

// Domains and codes of failures that mirror the platform's own, so that texts and codes read as a
// macOS user would expect.
inline constexpr std::string_view kCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view kPosixErrorDomain = "NSPOSIXErrorDomain";
enum CocoaErrorCode : std::int64_t {
  kFileNoSuchFileError = 4,
  kFileReadUnknownError = 256,
  kFileReadNoSuchFileError = 260,
  kFileReadCorruptFileError = 259,
  kFileWriteUnknownError = 512,
  kValidationMissingMandatoryPropertyError = 1570,
  kValidationRelationshipDeniedDeleteError = 1600,
  kManagedObjectReferentialIntegrityError = 133000,
  kPropertyListReadCorruptError = 3840,
  kPropertyListWriteInvalidError = 3852,
  kUserCancelledError = 3072,
  kCoderReadCorruptError = 4864,
  kCoderValueNotFoundError = 4865,
  kCoderInvalidValueError = 4866,
  kFileWriteNoPermissionError = 513,
  kFileWriteFileExistsError = 516,
  kFileWriteOutOfSpaceError = 640,
  kPersistentStoreIncompatibleSchemaError = 134020,
  kCoreDataError = 134060,
  kPersistentStoreOpenError = 134080,
  kPersistentStoreUnsupportedRequestTypeError = 134091,
  kPersistentStoreIncompatibleVersionHashError = 134100,
  kMigrationError = 134110,
  kMigrationMissingSourceModelError = 134130,
  kMigrationMissingMappingModelError = 134140,
  kManagedObjectMergeError = 133020,
};

// Class form of customErrorWithDomain:code:errorMessage:: the message is the whole text.
[[nodiscard]] Error customErrorWithDomain(std::string domain, std::int64_t code, std::string errorMessage);

// customErrorFromErrors:code:errorMessage:: one error combining several causes, in the first cause's
// domain. Up to six causes are listed, numbered, each on its own carriage-return line; a sixth is
// followed by "...". Nothing for an empty list.
[[nodiscard]] std::optional<Error> customErrorFromErrors(const std::vector<Error>& errors, std::int64_t code,
                                                         std::string_view errorMessage);

// What an alert shows, before any toolkit presents it.
struct AlertContent {
  enum class Style { Warning = 0, Informational = 1, Critical = 2 };
  Style style = Style::Warning;
  std::string messageText;
  std::string informativeText;

  friend bool operator==(const AlertContent&, const AlertContent&) = default;
};

// The alert of presentError:withMessage:: critical; the message, or "An Error Occurred." when none
// is given (an empty message is kept); the error's text as informative text.
[[nodiscard]] AlertContent errorAlertContent(const Error& error, const std::optional<std::string>& message);

// alertFor:withActivityMessage:: the informational alert listing several errors (up to four, then
// "..."), its first sentence completed by the activity message. Nothing for an empty list.
[[nodiscard]] std::optional<AlertContent> alertFor(const std::vector<Error>& errors,
                                                   const std::optional<std::string>& activityMessage);

}  // namespace tesselune
