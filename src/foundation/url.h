// Url: a URL as NSURL keeps it, a relative string and an optional base URL.
//
// Parsing and resolution follow RFC 3986, which is what Foundation does for the URLs this program
// meets (file URLs, http(s) URLs in archives, x-coredata object URIs). Equality compares the relative
// string and the base, as NSURL's isEqual: does, so "foo.xml" relative to a base is not equal to the
// same URL written absolutely.
//
// Plain value type; safe to copy between threads.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tesselune {

class Url {
 public:
  Url() = default;

  // As URLWithString: and URLWithString:relativeToURL:. Nothing when the text is not a valid URL
  // reference (spaces, control characters or a malformed scheme or percent escape).
  static std::optional<Url> parse(std::string_view text);
  static std::optional<Url> parse(std::string_view text, const Url& base);
  // As fileURLWithPath:isDirectory:. A relative path is taken against the current directory.
  // Characters outside the allowed path set are percent-escaped; a directory ends in "/".
  static Url fileUrl(std::string_view path, bool isDirectory);

  // The text as given (relativeString) and the base it is relative to, if any.
  const std::string& relativeString() const { return relative_; }
  const Url* baseUrl() const { return base_.get(); }
  // The relative string resolved against the base (absoluteString).
  std::string absoluteString() const;
  // The absolute URL without a base (absoluteURL).
  Url absoluteUrl() const;

  bool isEmpty() const { return relative_.empty() && !base_; }
  bool isFileUrl() const { return scheme() == "file"; }
  // Components of the absolute URL. The scheme is lower-cased; host, path, query and fragment are
  // as written (percent escapes kept, except in path() and pathComponents(), which decode them).
  std::string scheme() const;
  std::string host() const;
  std::optional<int> port() const;
  std::string percentEncodedPath() const;
  std::string path() const;  // decoded, without a trailing "/" unless it is the root
  std::optional<std::string> query() const;
  std::optional<std::string> fragment() const;
  // As pathComponents: "/" first for an absolute path, then each decoded segment.
  std::vector<std::string> pathComponents() const;
  std::string lastPathComponent() const;
  std::string pathExtension() const;
  bool hasDirectoryPath() const;

  // As URLByAppendingPathComponent:isDirectory:. The component is percent-escaped; a base is kept.
  Url appendingPathComponent(std::string_view component, bool isDirectory) const;
  // As URLByDeletingLastPathComponent: "file:///a/b/c" and "file:///a/b/c/" give "file:///a/b/";
  // the root gives "file:///../", as Foundation does.
  Url deletingLastPathComponent() const;

  // The text of this URL relative to `base` when it lies below it ("sub/file.txt"); nothing when
  // scheme, host or path prefix differ.
  std::optional<std::string> relativePathFrom(const Url& base) const;

  friend bool operator==(const Url& a, const Url& b);

 private:
  Url(std::string relative, std::shared_ptr<const Url> base) : relative_(std::move(relative)), base_(std::move(base)) {}

  std::string relative_;
  std::shared_ptr<const Url> base_;
};

// Percent-escapes every byte outside RFC 3986's unreserved set and `extraAllowed`.
std::string percentEscape(std::string_view text, std::string_view extraAllowed);
// Decodes %XX escapes; nothing when an escape is malformed.
std::optional<std::string> percentDecode(std::string_view text);

}  // namespace tesselune

template <>
struct std::hash<tesselune::Url> {
  std::size_t operator()(const tesselune::Url& u) const noexcept;
};
