// Url: RFC 3986 parsing and reference resolution, and the path operations of NSURL.
#include "foundation/url.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <functional>

namespace tesselune {

namespace {

struct Parts {
  std::optional<std::string> scheme;
  std::optional<std::string> authority;
  std::string path;
  std::optional<std::string> query;
  std::optional<std::string> fragment;
};

bool isSchemeStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool isSchemeChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '+' || c == '-' || c == '.';
}

Parts split(std::string_view text) {
  Parts parts;
  std::size_t colon = text.find(':');
  std::size_t stop = text.find_first_of("/?#");
  if (colon != std::string_view::npos && colon > 0 && colon < stop && isSchemeStart(text[0]) &&
      std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(colon), isSchemeChar)) {
    parts.scheme = std::string(text.substr(0, colon));
    text.remove_prefix(colon + 1);
  }
  if (text.starts_with("//")) {
    text.remove_prefix(2);
    std::size_t end = text.find_first_of("/?#");
    parts.authority = std::string(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end);
  }
  std::size_t hash = text.find('#');
  if (hash != std::string_view::npos) {
    parts.fragment = std::string(text.substr(hash + 1));
    text = text.substr(0, hash);
  }
  std::size_t question = text.find('?');
  if (question != std::string_view::npos) {
    parts.query = std::string(text.substr(question + 1));
    text = text.substr(0, question);
  }
  parts.path = std::string(text);
  return parts;
}

std::string join(const Parts& parts) {
  std::string out;
  if (parts.scheme) out += *parts.scheme + ":";
  if (parts.authority) out += "//" + *parts.authority;
  out += parts.path;
  if (parts.query) out += "?" + *parts.query;
  if (parts.fragment) out += "#" + *parts.fragment;
  return out;
}

// RFC 3986 section 5.2.4.
std::string removeDotSegments(std::string_view input) {
  std::string output;
  while (!input.empty()) {
    if (input.starts_with("../")) {
      input.remove_prefix(3);
    } else if (input.starts_with("./")) {
      input.remove_prefix(2);
    } else if (input.starts_with("/./")) {
      input.remove_prefix(2);
    } else if (input == "/.") {
      input = "/";
    } else if (input.starts_with("/../") || input == "/..") {
      input = input.size() == 3 ? std::string_view("/") : input.substr(3);
      std::size_t last = output.rfind('/');
      output.erase(last == std::string::npos ? 0 : last);
    } else if (input == "." || input == "..") {
      input = {};
    } else {
      std::size_t next = input.find('/', input[0] == '/' ? 1 : 0);
      std::size_t length = next == std::string_view::npos ? input.size() : next;
      output.append(input.substr(0, length));
      input.remove_prefix(length);
    }
  }
  return output;
}

// RFC 3986 section 5.2.2, strict.
std::string resolve(std::string_view baseText, std::string_view referenceText) {
  Parts base = split(baseText);
  Parts ref = split(referenceText);
  Parts target;
  if (ref.scheme) {
    target = ref;
    target.path = removeDotSegments(ref.path);
  } else {
    if (ref.authority) {
      target.authority = ref.authority;
      target.path = removeDotSegments(ref.path);
      target.query = ref.query;
    } else {
      if (ref.path.empty()) {
        target.path = base.path;
        target.query = ref.query ? ref.query : base.query;
      } else {
        if (ref.path.front() == '/') {
          target.path = removeDotSegments(ref.path);
        } else {
          std::string merged;
          if (base.authority && base.path.empty()) {
            merged = "/" + ref.path;
          } else {
            std::size_t last = base.path.rfind('/');
            merged = (last == std::string::npos ? std::string() : base.path.substr(0, last + 1)) + ref.path;
          }
          target.path = removeDotSegments(merged);
        }
        target.query = ref.query;
      }
      target.authority = base.authority;
    }
    target.scheme = base.scheme;
  }
  target.fragment = ref.fragment;
  return join(target);
}

bool isHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

bool isValidReference(std::string_view text) {
  static constexpr std::string_view kForbidden = "\"<>\\^`{|}";
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c <= 0x20 || c >= 0x7F || kForbidden.find(static_cast<char>(c)) != std::string_view::npos) return false;
    if (c == '%' && (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2]))) return false;
  }
  return true;
}

constexpr std::string_view kPathAllowed = "/!$&'()*+,;=:@";

}  // namespace

std::string percentEscape(std::string_view text, std::string_view extraAllowed) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    bool unreserved = std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_' || c == '~';
    if ((unreserved && c < 0x80) || extraAllowed.find(ch) != std::string_view::npos) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kDigits[c >> 4]);
      out.push_back(kDigits[c & 0x0F]);
    }
  }
  return out;
}

std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2])) return std::nullopt;
    out.push_back(static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16)));
    i += 2;
  }
  return out;
}

std::optional<Url> Url::parse(std::string_view text) {
  if (!isValidReference(text)) return std::nullopt;
  return Url(std::string(text), nullptr);
}

std::optional<Url> Url::parse(std::string_view text, const Url& base) {
  if (!isValidReference(text)) return std::nullopt;
  if (base.isEmpty()) return Url(std::string(text), nullptr);
  return Url(std::string(text), std::make_shared<const Url>(base));
}

Url Url::fileUrl(std::string_view path, bool isDirectory) {
  std::string absolute;
  if (!path.starts_with("/")) {
    char buffer[PATH_MAX];
    const char* cwd = ::getcwd(buffer, sizeof buffer);
    absolute = cwd != nullptr ? cwd : "/";
    if (!absolute.ends_with("/")) absolute += "/";
  }
  absolute += path;
  if (isDirectory && !absolute.ends_with("/")) absolute += "/";
  return Url("file://" + percentEscape(absolute, kPathAllowed), nullptr);
}

std::string Url::absoluteString() const {
  if (!base_) return relative_;
  return resolve(base_->absoluteString(), relative_);
}

Url Url::absoluteUrl() const { return base_ ? Url(absoluteString(), nullptr) : *this; }

std::string Url::scheme() const {
  auto s = split(absoluteString()).scheme.value_or("");
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

std::string Url::host() const {
  auto authority = split(absoluteString()).authority;
  if (!authority) return {};
  std::string_view a = *authority;
  if (auto at = a.rfind('@'); at != std::string_view::npos) a.remove_prefix(at + 1);
  if (a.starts_with("[")) {
    auto close = a.find(']');
    return std::string(a.substr(0, close == std::string_view::npos ? a.size() : close + 1));
  }
  return std::string(a.substr(0, a.find(':')));
}

std::optional<int> Url::port() const {
  auto authority = split(absoluteString()).authority;
  if (!authority) return std::nullopt;
  std::string_view a = *authority;
  if (auto at = a.rfind('@'); at != std::string_view::npos) a.remove_prefix(at + 1);
  if (auto close = a.find(']'); close != std::string_view::npos) a.remove_prefix(close + 1);
  auto colon = a.find(':');
  if (colon == std::string_view::npos || colon + 1 == a.size()) return std::nullopt;
  int port = 0;
  for (char c : a.substr(colon + 1)) {
    if (!std::isdigit(static_cast<unsigned char>(c)) || port > 65535) return std::nullopt;
    port = port * 10 + (c - '0');
  }
  return port;
}

std::string Url::percentEncodedPath() const { return split(absoluteString()).path; }

std::string Url::path() const {
  std::string p = percentDecode(percentEncodedPath()).value_or(percentEncodedPath());
  if (p.size() > 1 && p.ends_with("/")) p.pop_back();
  return p;
}

std::optional<std::string> Url::query() const { return split(absoluteString()).query; }
std::optional<std::string> Url::fragment() const { return split(absoluteString()).fragment; }

std::vector<std::string> Url::pathComponents() const {
  std::string p = percentEncodedPath();
  std::vector<std::string> components;
  if (p.empty()) return components;
  if (p.front() == '/') components.emplace_back("/");
  std::size_t start = 0;
  while (start <= p.size()) {
    std::size_t end = p.find('/', start);
    if (end == std::string::npos) end = p.size();
    if (end > start) {
      std::string_view segment(p.data() + start, end - start);
      components.push_back(percentDecode(segment).value_or(std::string(segment)));
    }
    start = end + 1;
  }
  return components;
}

std::string Url::lastPathComponent() const {
  auto components = pathComponents();
  return components.empty() ? std::string() : components.back();
}

std::string Url::pathExtension() const {
  std::string last = lastPathComponent();
  std::size_t dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return {};
  return last.substr(dot + 1);
}

bool Url::hasDirectoryPath() const { return percentEncodedPath().ends_with("/"); }

Url Url::appendingPathComponent(std::string_view component, bool isDirectory) const {
  Parts parts = split(relative_);
  std::string escaped = percentEscape(component, kPathAllowed);
  if (escaped.starts_with("/") && parts.path.ends_with("/")) escaped.erase(0, 1);
  if (!parts.path.empty() && !parts.path.ends_with("/") && !escaped.starts_with("/")) parts.path += "/";
  if (parts.path.empty() && parts.authority && !escaped.starts_with("/")) parts.path.push_back('/');
  parts.path += escaped;
  if (isDirectory && !parts.path.ends_with("/")) parts.path += "/";
  return Url(join(parts), base_);
}

Url Url::deletingLastPathComponent() const {
  Parts parts = split(relative_);
  std::string p = parts.path;
  if (p == "/") {
    parts.path = "/../";
  } else {
    if (p.ends_with("/")) p.pop_back();
    std::size_t last = p.rfind('/');
    if (last == std::string::npos) {
      parts.path = p.empty() ? "../" : "./";
    } else {
      parts.path = p.substr(0, last + 1);
    }
  }
  parts.query.reset();
  parts.fragment.reset();
  return Url(join(parts), base_);
}

std::optional<std::string> Url::relativePathFrom(const Url& base) const {
  Parts mine = split(absoluteString());
  Parts theirs = split(base.absoluteString());
  if (scheme() != base.scheme() || mine.authority != theirs.authority) return std::nullopt;
  std::string prefix = theirs.path;
  if (!prefix.ends_with("/")) prefix += "/";
  if (!mine.path.starts_with(prefix)) return std::nullopt;
  std::string rest = mine.path.substr(prefix.size());
  return percentDecode(rest);
}

bool operator==(const Url& a, const Url& b) {
  if (a.relative_ != b.relative_) return false;
  if (!a.base_ || !b.base_) return !a.base_ && !b.base_;
  return *a.base_ == *b.base_;
}

}  // namespace tesselune

std::size_t std::hash<tesselune::Url>::operator()(const tesselune::Url& u) const noexcept {
  std::size_t h = std::hash<std::string>()(u.relativeString());
  if (const tesselune::Url* base = u.baseUrl()) h ^= (*this)(*base) * 31;
  return h;
}
