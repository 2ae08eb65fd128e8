// The program's error texts, byte for byte: carriage returns in errors, line feeds and tabs in
// alerts, the listing limits and the program's own spellings.

#include "foundation/error.h"

#include <gtest/gtest.h>

namespace tesselune {
namespace {

std::vector<Error> numberedErrors(int n) {
  std::vector<Error> errors;
  for (int i = 1; i <= n; ++i) errors.emplace_back("Tesselune_Error", 100 + i, "cause " + std::to_string(i));
  return errors;
}

TEST(ErrorBuilders, FoldTheCauseIntoTheText) {
  const Error cause("NSPOSIXErrorDomain", 13, "Permission denied");
  const Error e =
      cause.customErrorWithDomain("Tesselun-storeSupport", 2, "The objectIDs could not be encoded.");
  EXPECT_EQ(e.domain(), "Tesselun-storeSupport");
  EXPECT_EQ(e.code(), 2);
  EXPECT_EQ(e.localizedDescription(), "The objectIDs could not be encoded.\rReason: Permission denied");

  EXPECT_EQ(cause.customErrorWithDomain("D", 1, "").localizedDescription(), "Permission denied");
  EXPECT_EQ(Error("X", 0, "").customErrorWithDomain("D", 1, "Message").localizedDescription(), "Message");
  EXPECT_EQ(customErrorWithDomain("Tesselune-storeSupport", 3, "Text"),
            Error("Tesselune-storeSupport", 3, "Text"));
}

TEST(ErrorBuilders, CombineUpToSixCauses) {
  EXPECT_FALSE(customErrorFromErrors({}, 1, "Message"));

  auto one = customErrorFromErrors({Error("First", 5, "only cause")}, 9, "");
  ASSERT_TRUE(one);
  EXPECT_EQ(one->domain(), "First");
  EXPECT_EQ(one->code(), 9);
  EXPECT_EQ(one->localizedDescription(), "Reason: only cause");

  auto two = customErrorFromErrors(numberedErrors(2), 7, "Deletion failed.");
  EXPECT_EQ(two->localizedDescription(), "Deletion failed.\rReasons:\r1 : cause 1\r2 : cause 2\r");

  const std::string six =
      "Reasons:\r1 : cause 1\r2 : cause 2\r3 : cause 3\r4 : cause 4\r5 : cause 5\r6 : cause 6\r...";
  EXPECT_EQ(customErrorFromErrors(numberedErrors(6), 7, "")->localizedDescription(), six);
  EXPECT_EQ(customErrorFromErrors(numberedErrors(7), 7, "")->localizedDescription(), six);
  EXPECT_EQ(customErrorFromErrors(numberedErrors(7), 7, "")->domain(), "Tesselune_Error");
}

TEST(AlertTexts, PresentErrorShowsACriticalAlert) {
  const Error e("D", 1, "Disk full");
  EXPECT_EQ(errorAlertContent(e, std::nullopt),
            (AlertContent{AlertContent::Style::Critical, "An Error Occurred.", "Disk full"}));
  EXPECT_EQ(errorAlertContent(e, std::string()).messageText, "");
  EXPECT_EQ(errorAlertContent(e, "Could not open the store.").messageText, "Could not open the store.");
}

TEST(AlertTexts, ListUpToFourErrors) {
  EXPECT_FALSE(alertFor({}, "in course of chromatogram deletion."));

  auto one = alertFor(numberedErrors(1), "in course of chromatogram deletion.");
  EXPECT_EQ(one->style, AlertContent::Style::Informational);
  EXPECT_EQ(one->messageText, "An error ocurred  in course of chromatogram deletion..");
  EXPECT_EQ(one->informativeText, "Error: cause 1");
  EXPECT_EQ(alertFor(numberedErrors(1), std::nullopt)->messageText, "An error occurred.");
  EXPECT_EQ(alertFor(numberedErrors(1), std::string())->messageText, "An error occurred.");

  auto two = alertFor(numberedErrors(2), "in course of chromatogram deletion.");
  EXPECT_EQ(two->messageText, "Several errors ocurred in course of chromatogram deletion..");
  EXPECT_EQ(two->informativeText, "Errors:\n\t1. cause 1 \n\t2. cause 2 \n");
  EXPECT_EQ(alertFor(numberedErrors(2), std::nullopt)->messageText, "Several error occurred.");

  const std::string four = "Errors:\n\t1. cause 1 \n\t2. cause 2 \n\t3. cause 3 \n\t4. cause 4 \n";
  EXPECT_EQ(alertFor(numberedErrors(4), std::nullopt)->informativeText, four);
  EXPECT_EQ(alertFor(numberedErrors(5), std::nullopt)->informativeText, four + "...");
}

}  // namespace
}  // namespace tesselune
