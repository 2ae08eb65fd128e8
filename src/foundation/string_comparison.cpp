// String tests of predicates, on ICU: case folding, canonical decomposition, regular expressions.

#include "foundation/string_comparison.h"

#include <fmt/format.h>
#include <unicode/normalizer2.h>
#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <vector>

#include "foundation/predicate.h"

namespace tesselune {

namespace {

icu::UnicodeString unicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

// Folds in place; see foldedString.
void fold(icu::UnicodeString& text, unsigned options) {
  if ((options & kDiacriticInsensitive) != 0) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_SUCCESS(status)) {
      icu::UnicodeString decomposed = nfd->normalize(text, status);
      icu::UnicodeString stripped;
      for (std::int32_t i = 0; i < decomposed.length();) {
        const UChar32 c = decomposed.char32At(i);
        if (u_charType(c) != U_NON_SPACING_MARK) stripped.append(c);
        i += U16_LENGTH(c);
      }
      icu::UnicodeString composed = nfc->normalize(stripped, status);
      if (U_SUCCESS(status)) text = std::move(composed);
    }
  }
  if ((options & kCaseInsensitive) != 0) text.foldCase(U_FOLD_CASE_DEFAULT);
}

std::vector<UChar32> codePoints(const icu::UnicodeString& text) {
  std::vector<UChar32> out;
  out.reserve(static_cast<std::size_t>(text.length()));
  for (std::int32_t i = 0; i < text.length();) {
    const UChar32 c = text.char32At(i);
    out.push_back(c);
    i += U16_LENGTH(c);
  }
  return out;
}

}  // namespace

std::string foldedString(std::string_view text, unsigned options) {
  if (options == 0) return std::string(text);
  icu::UnicodeString u = unicode(text);
  fold(u, options);
  return utf8(u);
}

struct RegularExpression::Compiled {
  std::unique_ptr<icu::RegexPattern> pattern;
  unsigned options = 0;
};

Expected<RegularExpression> RegularExpression::compile(std::string_view pattern, unsigned options) {
  icu::UnicodeString source = unicode(pattern);
  // Case is the engine's business; accents are removed from the pattern as from the text.
  fold(source, options & kDiacriticInsensitive);
  UParseError where{};
  UErrorCode status = U_ZERO_ERROR;
  const std::uint32_t flags = (options & kCaseInsensitive) != 0 ? UREGEX_CASE_INSENSITIVE : 0;
  auto compiled = std::make_shared<Compiled>();
  compiled->pattern.reset(icu::RegexPattern::compile(source, flags, where, status));
  compiled->options = options;
  if (U_FAILURE(status) || compiled->pattern == nullptr) {
    return fail(Error(std::string(kCocoaErrorDomain), kPredicateFormatError,
                      fmt::format("The regular expression \"{}\" does not compile ({} at offset {})", pattern,
                                  u_errorName(status), where.offset)));
  }
  return RegularExpression(std::move(compiled));
}

bool RegularExpression::matches(std::string_view text) const {
  icu::UnicodeString subject = unicode(text);
  fold(subject, compiled_->options & kDiacriticInsensitive);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(compiled_->pattern->matcher(subject, status));
  if (U_FAILURE(status) || matcher == nullptr) return false;
  const bool matched = matcher->matches(status);
  return U_SUCCESS(status) && matched;
}

bool likeMatches(std::string_view text, std::string_view pattern, unsigned options) {
  icu::UnicodeString t = unicode(text);
  icu::UnicodeString p = unicode(pattern);
  fold(t, options);
  fold(p, options);
  const std::vector<UChar32> s = codePoints(t);
  // The pattern as characters, each marked as a wildcard or a literal.
  struct Item {
    UChar32 c;
    bool wild;
  };
  std::vector<Item> items;
  const std::vector<UChar32> raw = codePoints(p);
  for (std::size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\\' && i + 1 < raw.size()) {
      items.push_back({raw[++i], false});
    } else {
      items.push_back({raw[i], raw[i] == '*' || raw[i] == '?'});
    }
  }
  // Greedy matching that backtracks only to the last star: linear in practice, quadratic at worst.
  std::size_t si = 0, pi = 0;
  std::size_t starItem = std::string::npos, starText = 0;
  while (si < s.size()) {
    if (pi < items.size() && items[pi].wild && items[pi].c == '*') {
      starItem = pi++;
      starText = si;
    } else if (pi < items.size() && ((items[pi].wild && items[pi].c == '?') || items[pi].c == s[si])) {
      ++pi;
      ++si;
    } else if (starItem != std::string::npos) {
      pi = starItem + 1;
      si = ++starText;
    } else {
      return false;
    }
  }
  while (pi < items.size() && items[pi].wild && items[pi].c == '*') ++pi;
  return pi == items.size();
}

bool stringTest(StringTest test, std::string_view text, std::string_view pattern, unsigned options) {
  switch (test) {
    case StringTest::Like:
      return likeMatches(text, pattern, options);
    case StringTest::Matches: {
      auto expression = RegularExpression::compile(pattern, options);
      return expression && expression->matches(text);
    }
    default:
      break;
  }
  if (pattern.empty()) return false;
  const std::string t = foldedString(text, options);
  const std::string p = foldedString(pattern, options);
  if (p.size() > t.size()) return false;
  switch (test) {
    case StringTest::BeginsWith:
      return t.compare(0, p.size(), p) == 0;
    case StringTest::EndsWith:
      return t.compare(t.size() - p.size(), p.size(), p) == 0;
    default:
      return t.find(p) != std::string::npos;
  }
}

}  // namespace tesselune
