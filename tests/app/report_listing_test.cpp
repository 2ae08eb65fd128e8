// Reading back the reports the deletion pass writes: which files count, in which order, what a
// damaged file becomes, and JSON that a strict parser accepts.
#include "app/report_listing.h"

#include <gtest/gtest.h>

#include <fstream>

#include "app_test_support.h"
#include "model/store_classes.h"

namespace tesselune {
namespace {

using testing::ScratchHome;

class ReportListingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto model = loadStoreModel();
    ASSERT_TRUE(model) << model.error().localizedDescription();
    model_ = *model;
    folder_ = home_.root() / "temporaryFiles";
  }

  ManagedObjectID id(std::string_view entity, std::int64_t key) const {
    return ManagedObjectID::permanent(*model_->entityNamed(entity), store_, key);
  }

  void writeFile(const std::string& name, std::string_view contents) {
    std::filesystem::create_directories(folder_);
    std::ofstream(folder_ / name, std::ios::binary) << contents;
  }

  ScratchHome home_;
  std::shared_ptr<const ManagedObjectModel> model_;
  Uuid store_ = *Uuid::parse("8FD414A2-FD20-4E3D-A57D-3AA48FD029A5");
  std::filesystem::path folder_;
};

TEST_F(ReportListingTest, ReportsComeInTheOrderTheyWereNamedAndOthersAreLeftOut) {
  EXPECT_TRUE(readReports(folder_).empty());  // no folder at all
  EXPECT_EQ(formatReports({}), "No deletion reports.\n");
  EXPECT_EQ(reportsJson({}), "{\"reports\": []}\n");

  // Twelve reports take storeSupport.info and _0 to _10; numbers sort as numbers, not as text.
  for (int i = 0; i < 12; ++i) {
    ASSERT_TRUE(writeDeletionReport(folder_, {id("Chromatogram", i + 1)}, true));
  }
  writeFile(".storeSupport_11.info", "hidden");
  writeFile("storeSupport.info.tmp", "not a report");
  writeFile("notes.txt", "");
  std::filesystem::create_directories(folder_ / "storeSupport_dir.info");
  writeFile("storeSupport_old.info", "someone else's");

  std::vector<std::string> names;
  for (const auto& file : reportFiles(folder_)) names.push_back(file.filename().string());
  std::vector<std::string> expected{"storeSupport.info"};
  for (int i = 0; i <= 10; ++i) expected.push_back("storeSupport_" + std::to_string(i) + ".info");
  expected.push_back("storeSupport_old.info");
  EXPECT_EQ(names, expected);

  const auto reports = readReports(folder_);
  ASSERT_EQ(reports.size(), 13u);
  ASSERT_TRUE(reports[11].report);
  EXPECT_EQ(reports[11].report->uris.at(0).absoluteString(),
            id("Chromatogram", 12).URIRepresentation().absoluteString());
  EXPECT_FALSE(reports[12].report);  // a report's name, but not a report
}

TEST_F(ReportListingTest, TextAndJsonCarryEveryURIAndTheFlag) {
  const std::vector<ManagedObjectID> deleted{id("Chromatogram", 4), id("Spectrum", 17), id("Spectrum", 17)};
  ASSERT_TRUE(writeDeletionReport(folder_, deleted, true));
  ASSERT_TRUE(writeDeletionReport(folder_, {id("DataCollection", 3)}, false));
  writeFile("storeSupport_1.info", "garbage \"quoted\"");
  const auto reports = readReports(folder_);
  ASSERT_EQ(reports.size(), 3u);

  const std::string prefix = "x-coredata://8FD414A2-FD20-4E3D-A57D-3AA48FD029A5/";
  const std::string text = formatReports(reports);
  EXPECT_NE(text.find("storeSupport.info\n  chromatogram deleted: yes\n  objects deleted: 3\n    " + prefix +
                      "Chromatogram/p4\n    " + prefix + "Spectrum/p17\n    " + prefix + "Spectrum/p17\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("storeSupport_0.info\n  chromatogram deleted: no\n  objects deleted: 1\n"),
            std::string::npos);
  EXPECT_NE(text.find("storeSupport_1.info\n  cannot be read: "), std::string::npos);

  const std::string json = reportsJson(reports);
  const std::string folder = folder_.string();
  EXPECT_NE(json.find("{\"file\": \"" + folder +
                      "/storeSupport.info\", \"chromatogramDeleted\": true, \"uris\": [\"" + prefix +
                      "Chromatogram/p4\", \"" + prefix + "Spectrum/p17\", \"" + prefix + "Spectrum/p17\"]}"),
            std::string::npos)
      << json;
  EXPECT_NE(json.find("\"chromatogramDeleted\": false, \"uris\": [\"" + prefix + "DataCollection/p3\"]}"),
            std::string::npos);
  EXPECT_NE(json.find("{\"file\": \"" + folder + "/storeSupport_1.info\", \"error\": \""), std::string::npos);
  EXPECT_TRUE(json.starts_with("{\"reports\": [\n  {"));
  EXPECT_TRUE(json.ends_with("}\n]}\n"));
}

TEST(ReportJson, StringsAreEscapedIntoValidJson) {
  EXPECT_EQ(jsonString(""), "\"\"");
  EXPECT_EQ(jsonString("a \"b\" \\ c"), "\"a \\\"b\\\" \\\\ c\"");
  EXPECT_EQ(jsonString("line\nnext\ttab\r"), "\"line\\nnext\\ttab\\r\"");
  EXPECT_EQ(jsonString(std::string("\x01\x1f\x7f", 3)), "\"\\u0001\\u001f\\u007f\"");
  EXPECT_EQ(jsonString(std::string("nul\0end", 7)), "\"nul\\u0000end\"");
  // Valid UTF-8 passes through; stray or cut bytes become U+FFFD, one each.
  EXPECT_EQ(jsonString("Données €"), "\"Données €\"");
  EXPECT_EQ(jsonString("\xf0\x9f\x93\x88"), "\"\xf0\x9f\x93\x88\"");
  EXPECT_EQ(jsonString("a\xff"
                       "b"),
            "\"a\\ufffdb\"");
  EXPECT_EQ(jsonString("\xc3"), "\"\\ufffd\"");  // cut at the end
  EXPECT_EQ(jsonString("\xe2\x82"
                       "x"),
            "\"\\ufffd\\ufffdx\"");                         // cut in the middle
  EXPECT_EQ(jsonString("\xc0\xaf"), "\"\\ufffd\\ufffd\"");  // overlong
}

}  // namespace
}  // namespace tesselune
