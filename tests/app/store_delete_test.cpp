// Deletes through the maintenance command on a store of a model written for these tests: what a dry
// run foretells (counts with cascades, refusals word for word) is what the real delete then does,
// a dry run changes nothing and leaves no scratch file, and keys left naming deleted objects through
// a relationship without an inverse are told apart from damage, by delete and by verify alike.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "app/store_command.h"
#include "fixtures.h"
#include "objectstore/description/managed_object_model.h"
#include "objectstore/sqlite/sqlite_store.h"
#include "store_files.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;
using testing::CommandResult;
using testing::fileBytes;
using testing::Sql;

// Boxes hold items three levels deep (abstract Item, Document, Letter) which cascade to their notes;
// a box must have an owner, whose own rule would nullify it; shelves deny; items name a label through
// a relationship without an inverse.
constexpr std::string_view kArchiveModel = R"xml(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<model type="com.apple.IDECoreDataModeler.DataModel" documentVersion="1.0">
  <entity name="Owner">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="boxes" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Box" inverseName="owner" inverseEntity="Box"/>
  </entity>
  <entity name="Shelf">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="boxes" optional="YES" toMany="YES" deletionRule="Deny" destinationEntity="Box" inverseName="shelf" inverseEntity="Box"/>
  </entity>
  <entity name="Box">
    <attribute name="name" optional="YES" attributeType="String"/>
    <relationship name="owner" maxCount="1" deletionRule="Nullify" destinationEntity="Owner" inverseName="boxes" inverseEntity="Owner"/>
    <relationship name="shelf" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Shelf" inverseName="boxes" inverseEntity="Shelf"/>
    <relationship name="items" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Item" inverseName="box" inverseEntity="Item"/>
  </entity>
  <entity name="Item" isAbstract="YES">
    <attribute name="title" optional="YES" attributeType="String"/>
    <relationship name="box" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Box" inverseName="items" inverseEntity="Box"/>
    <relationship name="label" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Label"/>
    <relationship name="notes" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Note" inverseName="item" inverseEntity="Note"/>
  </entity>
  <entity name="Document" parentEntity="Item">
    <attribute name="pages" optional="YES" attributeType="Integer 32" defaultValueString="0" usesScalarValueType="YES"/>
  </entity>
  <entity name="Letter" parentEntity="Document">
    <attribute name="sender" optional="YES" attributeType="String"/>
  </entity>
  <entity name="Label">
    <attribute name="name" optional="YES" attributeType="String"/>
  </entity>
  <entity name="Note">
    <attribute name="text" optional="YES" attributeType="String"/>
    <relationship name="item" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Item" inverseName="notes" inverseEntity="Item"/>
  </entity>
</model>)xml";

std::string number(const char* entity) {
  return std::string("(SELECT Z_ENT FROM Z_PRIMARYKEY WHERE Z_NAME = '") + entity + "')";
}

class ArchiveStore : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::scratchFolder("archive");
    modelFolder_ = folder_ / "Archive.xcdatamodel";
    fs::create_directories(modelFolder_);
    std::ofstream(modelFolder_ / "contents") << kArchiveModel;
    store_ = folder_ / "Archive.sqlite";
    auto model = ManagedObjectModel::modelWithContentsOfFile(modelFolder_);
    ASSERT_TRUE(model) << model.error().localizedDescription();
    ASSERT_TRUE(SqliteStore::create(store_, *model, SqliteStore::Options{}));
    // Ann owns the old box (a document with two notes and two letters, one with a note) and the
    // kept one on the top shelf (a letter with a note); Bob owns nothing. Three items are urgent.
    Sql(store_).run(
        "INSERT INTO ZOWNER (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (1, " + number("Owner") + ", 1, 'Ann'), (2, " +
        number("Owner") + ", 1, 'Bob');" + "INSERT INTO ZSHELF (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (1, " +
        number("Shelf") + ", 1, 'Top');" +
        "INSERT INTO ZBOX (Z_PK, Z_ENT, Z_OPT, ZNAME, ZOWNER, ZSHELF) VALUES (1, " + number("Box") +
        ", 1, 'Old', 1, NULL), (2, " + number("Box") + ", 1, 'Kept', 1, 1);" +
        "INSERT INTO ZLABEL (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (1, " + number("Label") +
        ", 1, 'urgent'), (2, " + number("Label") + ", 1, 'later');" +
        "INSERT INTO ZITEM (Z_PK, Z_ENT, Z_OPT, ZTITLE, ZBOX, ZLABEL) VALUES (1, " + number("Document") +
        ", 1, 'deed', 1, 1), (2, " + number("Letter") + ", 1, 'from Cy', 1, 1), (3, " + number("Letter") +
        ", 1, 'from Di', 1, 2), (4, " + number("Letter") + ", 1, 'from Ed', 2, 1);" +
        "INSERT INTO ZNOTE (Z_PK, Z_ENT, Z_OPT, ZTEXT, ZITEM) VALUES (1, " + number("Note") +
        ", 1, 'a', 1), (2, " + number("Note") + ", 1, 'b', 1), (3, " + number("Note") + ", 1, 'c', 2), (4, " +
        number("Note") + ", 1, 'd', 4);" +
        "UPDATE Z_PRIMARYKEY SET Z_MAX = 2 WHERE Z_NAME IN ('Owner', 'Box', 'Label');"
        "UPDATE Z_PRIMARYKEY SET Z_MAX = 1 WHERE Z_NAME = 'Shelf';"
        "UPDATE Z_PRIMARYKEY SET Z_MAX = 4 WHERE Z_NAME IN ('Item', 'Note');");
    scratchTemp_ = folder_ / "tmp";
    fs::create_directories(scratchTemp_);
  }

  CommandResult run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--model", modelFolder_.string()});
    return testing::runCommand(store_, arguments);
  }

  // A dry run with the store's file read-only and the temporary folder a scratch one, checking
  // that the store's bytes are as before and that the folder is left empty.
  CommandResult dryRun(std::vector<std::string> arguments) {
    const std::string before = fileBytes(store_);
    const char* previous = std::getenv("TMPDIR");
    const std::optional<std::string> saved = previous ? std::optional<std::string>(previous) : std::nullopt;
    ::setenv("TMPDIR", scratchTemp_.c_str(), 1);
    fs::permissions(store_, fs::perms::owner_read);
    arguments.push_back("--dry-run");
    CommandResult result = run(arguments);
    fs::permissions(store_, fs::perms::owner_read | fs::perms::owner_write);
    if (saved) {
      ::setenv("TMPDIR", saved->c_str(), 1);
    } else {
      ::unsetenv("TMPDIR");
    }
    EXPECT_EQ(fileBytes(store_), before) << "a dry run changed the store";
    EXPECT_TRUE(fs::is_empty(scratchTemp_)) << "a dry run left its scratch copy";
    return result;
  }

  std::string rowsOf(const std::string& table) {
    return Sql(store_).value("SELECT group_concat(Z_PK) FROM (SELECT Z_PK FROM " + table + " ORDER BY Z_PK)");
  }

  fs::path folder_;
  fs::path modelFolder_;
  fs::path store_;
  fs::path scratchTemp_;
};

TEST_F(ArchiveStore, ADryRunCountsTheCascadesThreeLevelsDownAsTheDeleteThenDoes) {
  const CommandResult dry = dryRun({"delete", "Box", "--where", "name == 'Old'"});
  ASSERT_EQ(dry.exitCode, kExitOk) << dry.err;
  EXPECT_NE(dry.out.find("Would delete 1 Box object(s) where name == 'Old' (1 Box)\n"), std::string::npos)
      << dry.out;
  const std::string counts = "  1 Box\n  1 Document\n  2 Letter\n  3 Note\n";
  EXPECT_NE(dry.out.find("Would delete, cascades included:\n" + counts), std::string::npos) << dry.out;
  EXPECT_EQ(dry.out.find("Keys"), std::string::npos) << dry.out;
  EXPECT_EQ(rowsOf("ZITEM"), "1,2,3,4");

  const CommandResult done = run({"delete", "Box", "--where", "name == 'Old'"});
  ASSERT_EQ(done.exitCode, kExitOk) << done.err;
  EXPECT_NE(done.out.find("Deleted:\n" + counts), std::string::npos) << done.out;
  EXPECT_EQ(rowsOf("ZBOX"), "2");
  EXPECT_EQ(rowsOf("ZITEM"), "4");
  EXPECT_EQ(rowsOf("ZNOTE"), "4");
  EXPECT_EQ(run({"verify"}).exitCode, kExitOk);

  // Nothing selected: nothing would go, and nothing is copied.
  const CommandResult none = dryRun({"delete", "Box", "--where", "name == 'Nowhere'"});
  ASSERT_EQ(none.exitCode, kExitOk) << none.err;
  EXPECT_NE(none.out.find("Would delete 0 Box object(s)"), std::string::npos) << none.out;
  EXPECT_NE(none.out.find("Nothing would be deleted.\n"), std::string::npos) << none.out;
}

TEST_F(ArchiveStore, ADryRunForetellsARefusalInTheDeletesOwnWords) {
  const std::string before = fileBytes(store_);
  // A nullify that would empty a mandatory to-one, and a deny rule.
  for (const auto& [entity, where] :
       {std::pair{"Owner", "name == 'Ann'"}, std::pair{"Shelf", "TRUEPREDICATE"}}) {
    SCOPED_TRACE(entity);
    const CommandResult dry = dryRun({"delete", entity, "--where", where});
    const CommandResult real = run({"delete", entity, "--where", where});
    EXPECT_EQ(dry.exitCode, kExitFailure);
    EXPECT_EQ(real.exitCode, kExitFailure);
    EXPECT_EQ(dry.err, real.err);
    EXPECT_EQ(std::count(real.err.begin(), real.err.end(), '\n'), 1) << real.err;
    EXPECT_EQ(dry.err.find("dry-run"), std::string::npos) << dry.err;
  }
  EXPECT_NE(run({"delete", "Owner", "--where", "name == 'Ann'"})
                .err.find("would nullify the mandatory relationship “owner” of Box"),
            std::string::npos);
  EXPECT_NE(
      run({"delete", "Shelf", "--where", "TRUEPREDICATE"}).err.find("deny rule of the relationship “boxes”"),
      std::string::npos);
  EXPECT_EQ(rowsOf("ZOWNER"), "1,2");
  EXPECT_EQ(rowsOf("ZSHELF"), "1");

  // The owner without boxes goes, in the dry run and then for real.
  const CommandResult dry = dryRun({"delete", "Owner", "--where", "name == 'Bob'"});
  ASSERT_EQ(dry.exitCode, kExitOk) << dry.err;
  EXPECT_NE(dry.out.find("Would delete, cascades included:\n  1 Owner\n"), std::string::npos) << dry.out;
  ASSERT_EQ(run({"delete", "Owner", "--where", "name == 'Bob'"}).exitCode, kExitOk);
  EXPECT_EQ(rowsOf("ZOWNER"), "1");
}

TEST_F(ArchiveStore, KeysLeftThroughARelationshipWithoutAnInverseAreToldAndAreNoDamage) {
  const std::string left =
      "  Item.label (ZITEM.ZLABEL): 3 row(s) naming a deleted Label, a relationship without an inverse (Core "
      "Data "
      "leaves these too; verify lists them apart from damage)\n";
  const CommandResult dry = dryRun({"delete", "Label", "--where", "name == 'urgent'"});
  ASSERT_EQ(dry.exitCode, kExitOk) << dry.err;
  EXPECT_NE(dry.out.find("Keys it would leave naming deleted objects:\n" + left), std::string::npos)
      << dry.out;

  const CommandResult done = run({"delete", "Label", "--where", "name == 'urgent'"});
  ASSERT_EQ(done.exitCode, kExitOk) << done.err;
  EXPECT_NE(done.out.find("Deleted:\n  1 Label\nKeys left naming deleted objects:\n" + left),
            std::string::npos)
      << done.out;
  // Core Data leaves the keys as they are; so does the delete.
  EXPECT_EQ(Sql(store_).value("SELECT group_concat(ZLABEL) FROM (SELECT ZLABEL FROM ZITEM ORDER BY Z_PK)"), "1,1,2,1");

  const CommandResult verified = run({"verify"});
  EXPECT_EQ(verified.exitCode, kExitOk) << verified.out;
  EXPECT_EQ(
      verified.out,
      "SQLite integrity: ok\nEntity numbers: ok\nReferences: ok\n"
      "Keys left by deletes through relationships without an inverse (Core Data leaves them too; no damage): "
      "1\n  Item.label (ZITEM.ZLABEL): 3 row(s) name a missing Label, keys 1\n"
      "Key counters: ok\nThe store is sound.\n");

  // A second delete tells only the keys it left itself.
  const CommandResult again = run({"delete", "Label", "--where", "name == 'later'"});
  ASSERT_EQ(again.exitCode, kExitOk) << again.err;
  EXPECT_NE(again.out.find("  Item.label (ZITEM.ZLABEL): 1 row(s) naming a deleted Label"), std::string::npos)
      << again.out;

  // A key through a relationship with an inverse is damage all the same.
  Sql(store_).run("DELETE FROM ZBOX WHERE Z_PK = 2");
  const CommandResult damaged = run({"verify"});
  EXPECT_EQ(damaged.exitCode, kExitFailure);
  EXPECT_NE(
      damaged.out.find("References to missing rows: 1\n  Item.box (ZITEM.ZBOX): 1 row(s) name a missing "
                       "Box, keys 2\nKeys left by deletes"),
      std::string::npos)
      << damaged.out;
  EXPECT_TRUE(damaged.out.ends_with("The store is damaged.\n")) << damaged.out;
}

TEST_F(ArchiveStore, VerifyFindsRowsFiledUnderAnEntityOfAnotherTable) {
  Sql(store_).run("UPDATE ZITEM SET Z_ENT = " + number("Note") + " WHERE Z_PK IN (3, 4);" +
                  "UPDATE ZNOTE SET Z_ENT = 99 WHERE Z_PK = 2");
  const CommandResult verified = run({"verify"});
  EXPECT_EQ(verified.exitCode, kExitFailure);
  const std::string note = Sql(store_).value("SELECT Z_ENT FROM Z_PRIMARYKEY WHERE Z_NAME = 'Note'");
  EXPECT_NE(verified.out.find("Rows of an entity that does not belong in their table: 2\n"
                              "  ZITEM: 2 row(s) with Z_ENT " +
                              note +
                              " (Note, whose rows belong in ZNOTE), keys 3, 4\n"
                              "  ZNOTE: 1 row(s) with Z_ENT 99 (no entity of the store), keys 2\n"),
            std::string::npos)
      << verified.out;
}

}  // namespace
}  // namespace tesselune
