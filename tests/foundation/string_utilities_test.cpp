// String utilities: NSString's UTF-16 counting for shortening, capitalising and reversing, and
// dynamic type identifiers against the ones the platform makes.

#include "foundation/string_utilities.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "foundation/type_identifier.h"

namespace tesselune {
namespace {

TEST(StringUtilities, ShortensWithTheEllipsisInTheMiddle) {
  const std::string text = "abcdefghij";
  EXPECT_EQ(shortVersionWithLength(text, 5), "ab…ij");
  EXPECT_EQ(shortVersionWithLength(text, 4), "a…ij");
  // A text of exactly the length is still shortened: its middle unit gives way to the ellipsis, and
  // with an odd n - 1 the tail gets the extra unit, so the result keeps all n units.
  EXPECT_EQ(shortVersionWithLength(text, 10), "abcd…fghij");
  EXPECT_EQ(shortVersionWithLength(text, 11), text);
  EXPECT_EQ(shortVersionWithLength(text, 1), "…");
  EXPECT_EQ(shortVersionWithLength("", 1), "");
  EXPECT_THROW((void)shortVersionWithLength(text, 0), std::out_of_range);
}

TEST(StringUtilities, CountsUtf16UnitsNotBytes) {
  // "é" is two bytes but one unit; "🧪" four bytes but two units.
  EXPECT_EQ(utf16Length("héllo"), 5u);
  EXPECT_EQ(utf16Length("a🧪b"), 4u);
  EXPECT_EQ(shortVersionWithLength("éèêëēėę", 5), "éè…ėę");
  EXPECT_EQ(shortVersionWithLength("héllo", 6), "héllo");
  // A cut through a character outside the basic plane leaves a lone half, shown as U+FFFD.
  EXPECT_EQ(shortVersionWithLength("ab🧪🧪cd", 6), "ab…\uFFFDcd");
  // Bytes that are not UTF-8 count as one unit each and read as U+FFFD.
  EXPECT_EQ(utf16Length("a\xff"
                        "b"),
            3u);
  EXPECT_EQ(reversedString("a\xff"), "\uFFFDa");
}

TEST(StringUtilities, CapitalisesOnlyTheFirstLetter) {
  EXPECT_EQ(capitalizedFirstLetter("aBC"), "ABC");
  EXPECT_EQ(capitalizedFirstLetter("a"), "A");
  EXPECT_EQ(capitalizedFirstLetter("hello world"), "Hello world");
  EXPECT_EQ(capitalizedFirstLetter(""), "");
  EXPECT_EQ(capitalizedFirstLetter("élan"), "Élan");
  EXPECT_EQ(capitalizedFirstLetter("ßig"), "SSig");
  EXPECT_EQ(capitalizedFirstLetter("ß"), "Ss");
  EXPECT_EQ(capitalizedFirstLetter("λόγος"), "Λόγος");
  EXPECT_EQ(capitalizedFirstLetter("жук"), "Жук");
  EXPECT_EQ(capitalizedFirstLetter("1abc"), "1abc");

  // Letters beyond a few hand-made ranges: Greek with tonos, Vietnamese, Armenian, full-width
  // Latin, Latin Extended-B, long s, a title-case digraph, a letter outside the basic plane and
  // one with a combining mark.
  EXPECT_EQ(capitalizedFirstLetter("άλφα"), "Άλφα");
  EXPECT_EQ(capitalizedFirstLetter("ώρα"), "Ώρα");
  EXPECT_EQ(capitalizedFirstLetter("ệt"), "Ệt");
  EXPECT_EQ(capitalizedFirstLetter("արեւ"), "Արեւ");
  EXPECT_EQ(capitalizedFirstLetter("ａｂｃ"), "Ａｂｃ");
  EXPECT_EQ(capitalizedFirstLetter("ƀx"), "Ƀx");
  EXPECT_EQ(capitalizedFirstLetter("ſun"), "Sun");
  EXPECT_EQ(capitalizedFirstLetter("ǆ"), "ǅ");
  EXPECT_EQ(capitalizedFirstLetter("𐐨𐐨"), "𐐀𐐨");
  EXPECT_EQ(capitalizedFirstLetter("e\u0301lan"), "E\u0301lan");
}

TEST(StringUtilities, ReversesByUtf16Unit) {
  EXPECT_EQ(reversedString(""), "");
  EXPECT_EQ(reversedString("abc"), "cba");
  EXPECT_EQ(reversedString("héllo"), "olléh");
  // The two halves of a character outside the basic plane end up swapped: two lone halves.
  EXPECT_EQ(reversedString("a🧪"), "\uFFFD\uFFFDa");
}

TEST(TypeIdentifier, MatchesThePlatformsDynamicIdentifiers) {
  EXPECT_EQ(dynamicUTIForPasteboardType("Apple URL pasteboard type"),
            "dyn.ah62d4rv4gu8yc6durvwwaznwmuuha2pxsvw0e55bsmwca7d3sbwu");
  EXPECT_EQ(dynamicUTIForPasteboardType("NSFilenamesPboardType"),
            "dyn.ah62d4rv4gu8y6y4grf0gn5xbrzw1gydcr7u1e3cytf2gn");
  EXPECT_EQ(dynamicTypeIdentifier(TypeTagClass::FilenameExtension, "sql"), "dyn.ah62d4rv4ge81g6pq");
}

TEST(TypeIdentifier, DecodesWhatItEncodes) {
  for (std::string_view type : {"ObjectStoreObjects", "a:b", "", "Grüße", "MarkerFragmentGroup"}) {
    const std::string identifier = dynamicUTIForPasteboardType(type);
    auto text = decodeDynamicTypeIdentifier(identifier);
    ASSERT_TRUE(text) << identifier;
    std::string expected = "?0=6:4=";
    for (char c : type) {
      if (c == ':') expected += '\\';
      expected += c;
    }
    EXPECT_EQ(*text, expected);
  }
  EXPECT_FALSE(decodeDynamicTypeIdentifier("public.data"));
  EXPECT_FALSE(decodeDynamicTypeIdentifier("dyn.a"));
  EXPECT_FALSE(decodeDynamicTypeIdentifier("dyn.ai62"));      // "i" is not in the alphabet
  EXPECT_FALSE(decodeDynamicTypeIdentifier("dyn.ah62d4rz"));  // padding bits that are not zero
}

TEST(TypeIdentifier, EqualityIgnoresCase) {
  const std::string a = dynamicUTIForPasteboardType("ObjectStoreObjects");
  std::string upper = a;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  EXPECT_TRUE(utiEqual(a, upper));
  EXPECT_TRUE(utiEqual("public.Data", "PUBLIC.data"));
  EXPECT_FALSE(utiEqual(a, dynamicUTIForPasteboardType("LibraryDataObjects")));
  EXPECT_FALSE(utiEqual("public.data", "public.dat"));
}

}  // namespace
}  // namespace tesselune
