// Verification of real stores: a sound demo store passes, and rows removed or counters lowered
// behind the engine's back are found.
#include "app/store_verification.h"

#include <gtest/gtest.h>

#include "app/demo_store.h"
#include "app/store_maintenance.h"
#include "app_test_support.h"

namespace tesselune {
namespace {

using testing::ScratchHome;
using testing::smallDemo;

class VerificationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto built = buildDemoStore(home_.library(), smallDemo(), nullptr);
    ASSERT_TRUE(built) << built.error().localizedDescription();
  }

  // Changes the store the way a faulty tool would, then closes it.
  void damage(std::string_view sql) {
    auto opened = openMaintenanceStore(home_.library().storeFile(), false);
    ASSERT_TRUE(opened);
    auto ran = opened->store->database().execute(sql);
    ASSERT_TRUE(ran) << ran.error().localizedDescription();
  }

  VerificationResult verify() {
    auto opened = openMaintenanceStore(home_.library().storeFile(), true);
    EXPECT_TRUE(opened);
    auto result = verifyStore(*opened->store);
    EXPECT_TRUE(result) << result.error().localizedDescription();
    return *result;
  }

  ScratchHome home_;
};

TEST_F(VerificationTest, ADemoStoreIsSound) {
  const VerificationResult result = verify();
  EXPECT_TRUE(result.ok()) << formatVerification(result);
  EXPECT_EQ(
      formatVerification(result),
      "SQLite integrity: ok\nEntity numbers: ok\nReferences: ok\nKey counters: ok\nThe store is sound.\n");
}

TEST_F(VerificationTest, AChromatogramRowRemovedBehindTheEngineLeavesItsDependantsDangling) {
  damage("DELETE FROM ZCHROMATOGRAM WHERE Z_PK = 1");
  const VerificationResult result = verify();
  EXPECT_FALSE(result.ok());
  EXPECT_TRUE(result.integrityProblems.empty());

  const DanglingReference* spectra = nullptr;
  for (const auto& reference : result.danglingReferences) {
    // Only the removed chromatogram is missing, whatever points at it.
    EXPECT_EQ(reference.missingEntity, "Chromatogram") << reference.entity << "." << reference.relationship;
    EXPECT_EQ(reference.examples, std::vector<std::int64_t>{1});
    if (reference.entity == "SpectrumSingle" && reference.relationship == "chromatogramNative")
      spectra = &reference;
  }
  ASSERT_NE(spectra, nullptr) << formatVerification(result);
  EXPECT_EQ(spectra->count, 40);
  // Data collection 1 holds it through a join table, which is checked as well.
  EXPECT_TRUE(std::any_of(result.danglingReferences.begin(), result.danglingReferences.end(),
                          [](const auto& r) { return r.table.starts_with("Z_") && r.count == 1; }))
      << formatVerification(result);
  EXPECT_NE(formatVerification(result).find(
                "SpectrumSingle.chromatogramNative (ZSPECTRUMSINGLE.ZCHROMATOGRAMNATIVE): 40 row(s)"),
            std::string::npos);
}

TEST_F(VerificationTest, AMissingPeptideInAManyToManyJoinIsFound) {
  // Peptide identifications are linked to proteins through a join table; remove one peptide row
  // only, leaving its join rows behind.
  damage("DELETE FROM ZPEPTIDEID WHERE Z_PK = (SELECT MIN(Z_PK) FROM ZPEPTIDEID)");
  const VerificationResult result = verify();
  EXPECT_TRUE(
      std::any_of(result.danglingReferences.begin(), result.danglingReferences.end(),
                  [](const auto& r) { return r.missingEntity == "PeptideID" && r.table.starts_with("Z_"); }))
      << formatVerification(result);
}

TEST_F(VerificationTest, AKeyCounterBehindTheKeysInUseIsFound) {
  damage("UPDATE Z_PRIMARYKEY SET Z_MAX = 1 WHERE Z_NAME = 'Chromatogram'");
  const VerificationResult result = verify();
  EXPECT_TRUE(result.danglingReferences.empty());
  ASSERT_EQ(result.keyCounterProblems.size(), 1u) << formatVerification(result);
  EXPECT_NE(result.keyCounterProblems[0].find("Chromatogram"), std::string::npos);
  EXPECT_NE(result.keyCounterProblems[0].find("is 1 but the highest key in use is 2"), std::string::npos);
}

}  // namespace
}  // namespace tesselune
