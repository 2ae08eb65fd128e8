// Uniform type identifiers for pasteboard types that no declared type claims: the platform's
// dynamic identifiers ("dyn.a…"), which both applications compute the same way, and their equality.
//
// Pure functions; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tesselune {

// The kinds of tag a dynamic identifier can stand for, with the digit the encoding uses.
enum class TypeTagClass : char {
  FilenameExtension = '1',
  OsType = '2',
  MimeType = '3',
  PasteboardType = '4',
  UrlScheme = '5',
};

// The dynamic identifier for a tag of the given class, conforming to public.data: the text
// "?0=6:<class>=<tag>" (a ":" in the tag written "\:"), read five bits at a time into the alphabet
// "abcdefghkmnpqrstuvwxyz0123456789", after "dyn.a".
std::string dynamicTypeIdentifier(TypeTagClass tagClass, std::string_view tag);

// dynamicUTIForPasteboardType: the identifier for a pasteboard type name, as
// UTTypeCreatePreferredIdentifierForTag answers for a type that no declared type claims.
std::string dynamicUTIForPasteboardType(std::string_view pasteboardType);

// The text a dynamic identifier encodes ("?0=6:4=…"); nothing when it is not one.
std::optional<std::string> decodeDynamicTypeIdentifier(std::string_view identifier);

// utiEqualityTo: (UTTypeEqual): identifiers are equal when they are equal ignoring case.
bool utiEqual(std::string_view a, std::string_view b);

}  // namespace tesselune
