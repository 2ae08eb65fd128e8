// The string tests of predicates over UTF-8 text: folding for [c] and [d], BEGINSWITH, ENDSWITH,
// CONTAINS, LIKE and MATCHES. The in-memory evaluator and the SQL functions that the store engine
// registers on its connections both call these, so that a predicate answers alike in both places.
//
// `options` are the comparison options of predicate.h (kCaseInsensitive, kDiacriticInsensitive).
// Everything here is stateless or immutable and safe to call from several threads at once.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "foundation/error.h"

namespace tesselune {

enum class StringTest { BeginsWith, EndsWith, Contains, Like, Matches };

// The text as [c] and [d] compare it: with [c] full Unicode case folding ("Straße" and "STRASSE"
// fold alike), with [d] the combining marks of the canonical decomposition removed ("é" is "e").
// Invalid UTF-8 sequences fold to U+FFFD. Without options the text comes back unchanged.
std::string foldedString(std::string_view text, unsigned options);

// A regular expression in ICU's syntax, matched against the whole text as MATCHES does. Immutable
// once compiled; copies share the compiled pattern.
class RegularExpression {
 public:
  // Fails with the predicate format error code and ICU's reason for a pattern that does not compile.
  [[nodiscard]] static Expected<RegularExpression> compile(std::string_view pattern, unsigned options);
  bool matches(std::string_view text) const;

 private:
  struct Compiled;
  explicit RegularExpression(std::shared_ptr<const Compiled> compiled) : compiled_(std::move(compiled)) {}
  std::shared_ptr<const Compiled> compiled_;
};

// LIKE: `*` matches any run of characters, `?` exactly one, a backslash takes the next character
// literally; the pattern covers the whole text.
bool likeMatches(std::string_view text, std::string_view pattern, unsigned options);

// `text <test> pattern`. An empty pattern begins, ends or is contained in nothing; a MATCHES pattern
// that does not compile matches nothing (callers that can report it check with compile first).
bool stringTest(StringTest test, std::string_view text, std::string_view pattern, unsigned options);

}  // namespace tesselune
