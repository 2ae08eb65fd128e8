// Correlated precursors: archives of the main application's shape stored in a real store decode
// with their links resolved, ours decode back unchanged, malformed ones fall back or fail as the
// archive's rules say; the encoder container in JSON and property-list form, with its errors.

#include "model/correlated_precursor.h"

#include <gtest/gtest.h>

#include <string>

#include "decimal_comma_locale.h"
#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"
#include "foundation/property_list.h"
#include "mac_archive.h"
#include "model/application_object.h"
#include "model/precursor_list.h"
#include "test_store.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;
using test::MacArchive;

const Uuid kId = *Uuid::parse("71DC068E-3420-45FF-919E-3A267D55EC22");
const Uuid kFragmentA = *Uuid::parse("0AD863BA-7584-40CF-8896-BD87B3280C34");
const Uuid kFragmentB = *Uuid::parse("5F1C2B3A-0000-4000-8000-00000000000B");
const std::string kForeignSelection =
    "x-coredata://00000000-1111-2222-3333-444444444444/PrecursorSelection/p1";

class CorrelatedPrecursors : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = test::scratchFolder("precursors") / "TesseluneStore.tesselune";
    store_ = test::openStore(path_);
    auto selection = store_.insert("PrecursorSelection");
    auto list = store_.insert("PrecursorList");
    ASSERT_TRUE(store_.context().save());
    selectionID_ = selection->objectID();
    listID_ = list->objectID();
  }

  std::string uri(const ManagedObjectID& id) const { return id.URIRepresentation().absoluteString(); }

  // One precursor as the main application archives it; keys left out on request.
  std::uint64_t macPrecursor(MacArchive& archive, const std::string& skip = "", bool withList = true,
                             const std::string& selectionURI = "") {
    Dictionary keys{
        {"id", MacArchive::uid(archive.uuid(kId))},
        {"precursorMZ", Value(412.2371)},
        {"curveDistance", Value(0.0123)},
        {"fragmentsIntensity", Value(0.0)},
        {"precursorIntensity", Value(0.0)},
        {"selectionPrecursorURI",
         MacArchive::uid(archive.url(selectionURI.empty() ? uri(selectionID_) : selectionURI))},
        {"correlatedFragmentIDs",
         MacArchive::uid(archive.set({archive.uuid(kFragmentA), archive.uuid(kFragmentB)}))},
    };
    if (withList) keys.emplace("precursorListURI", MacArchive::uid(archive.url(uri(listID_))));
    keys.erase(skip);
    return archive.object({"Tesselune.CorrelatedPrecursor", "NSObject"}, std::move(keys));
  }

  static Expected<std::shared_ptr<CorrelatedPrecursor>> decodeOne(const Bytes& data) {
    auto value = KeyedUnarchiver::unarchiveTopLevelObjectWithData(data);
    if (!value) return fail(value.error());
    auto precursor = value->asObjectOf<CorrelatedPrecursor>();
    EXPECT_TRUE(precursor) << value->description();
    return precursor;
  }

  std::shared_ptr<CorrelatedPrecursor> ours() const {
    auto precursor =
        std::make_shared<CorrelatedPrecursor>(kId, 412.2371, 0.0123, selectionID_, store_.environment);
    precursor->setPrecursorListID(listID_);
    precursor->setPrecursorIntensity(1.5e6);
    precursor->setCorrelatedFragmentIDs({kFragmentA, kFragmentB});
    return precursor;
  }

  fs::path path_;
  test::OpenStore store_;
  ManagedObjectID selectionID_;
  ManagedObjectID listID_;
};

TEST_F(CorrelatedPrecursors, MainApplicationArchiveInTheStoreDecodesWithItsLinks) {
  const std::int64_t key = listID_.primaryKey();
  store_ = {};  // close the store before writing its file
  MacArchive archive;
  const auto first = macPrecursor(archive);
  const auto second = macPrecursor(archive, "", false, kForeignSelection);
  test::writeBlob(path_, "ZPRECURSORLIST", "ZCORRELATEDPRECURSORS", key,
                  archive.data(archive.array({first, second})));

  store_ = test::openStore(path_);
  auto context = store_.delegate->persistentDataContainer()->newBackgroundContext();
  context->performBlockAndWait([&] {
    auto list = context->existingObjectWithID(listID_);
    ASSERT_TRUE(list);
    auto precursors = std::dynamic_pointer_cast<PrecursorList>(*list)->correlatedPrecursors();
    ASSERT_TRUE(precursors);
    ASSERT_EQ(precursors->size(), 2u);
    const auto& one = *(*precursors)[0];
    EXPECT_EQ(one.id(), kId);
    EXPECT_DOUBLE_EQ(one.precursorMZ(), 412.2371);
    EXPECT_DOUBLE_EQ(one.curveDistance(), 0.0123);
    EXPECT_EQ(one.precursorSelectionID(), selectionID_);
    EXPECT_EQ(one.precursorListID(), listID_);
    EXPECT_EQ(one.correlatedFragmentIDs(), (std::set<Uuid>{kFragmentA, kFragmentB}));
    // Both intensities are 0, yet the archive path never asks for an update.
    EXPECT_FALSE(one.requiresIntensitiesUpdate());
    auto selection = context->existingObjectWithID(one.precursorSelectionID());
    EXPECT_TRUE(selection);

    const auto& two = *(*precursors)[1];
    EXPECT_FALSE(two.precursorListID());
    EXPECT_TRUE(isEmptyObjectID(two.precursorSelectionID()));
  });
}

TEST_F(CorrelatedPrecursors, OurArchiveDecodesBackUnchanged) {
  auto precursor = ours();
  auto data = KeyedArchiver::archivedDataWithRootObject(Value(Array{Value(precursor)}), false);
  ASSERT_TRUE(data);
  auto decoded = KeyedUnarchiver::unarchiveTopLevelObjectWithData(*data);
  ASSERT_TRUE(decoded) << decoded.error().debugDescription();
  auto back = decoded->at(0).asObjectOf<CorrelatedPrecursor>();
  ASSERT_TRUE(back);
  EXPECT_NE(back, precursor);
  EXPECT_EQ(back->id(), kId);
  EXPECT_EQ(back->precursorMZ(), 412.2371);
  EXPECT_EQ(back->precursorIntensity(), 1.5e6);
  EXPECT_EQ(back->precursorSelectionID(), selectionID_);
  EXPECT_EQ(back->precursorListID(), listID_);
  EXPECT_EQ(back->correlatedFragmentIDs(), precursor->correlatedFragmentIDs());
  auto again = KeyedArchiver::archivedDataWithRootObject(*decoded, false);
  ASSERT_TRUE(again);
  EXPECT_EQ(*again, *data);

  // The archive carries the Swift class name and an NSUUID, as the main application reads them.
  auto tree = propertyListWithData(*data);
  ASSERT_TRUE(tree);
  EXPECT_NE(tree->description().find("Tesselune.CorrelatedPrecursor"), std::string::npos);
  EXPECT_NE(tree->description().find("NS.uuidbytes"), std::string::npos);
}

TEST_F(CorrelatedPrecursors, MalformedArchivesFallBackOrFail) {
  {  // without "id" there is no precursor
    MacArchive archive;
    EXPECT_FALSE(decodeOne(archive.data(macPrecursor(archive, "id"))));
  }
  {  // an id that is a string is no UUID either
    MacArchive archive;
    auto keys = Dictionary{{"id", MacArchive::uid(archive.add(Value(kId.string())))}};
    EXPECT_FALSE(
        decodeOne(archive.data(archive.object({"Tesselune.CorrelatedPrecursor", "NSObject"}, keys))));
  }
  {  // missing doubles read 0, a fragment set with a stranger reads empty
    MacArchive archive;
    auto keys =
        Dictionary{{"id", MacArchive::uid(archive.uuid(kId))},
                   {"correlatedFragmentIDs",
                    MacArchive::uid(archive.set({archive.uuid(kFragmentA), archive.add(Value("x"))}))}};
    auto precursor =
        decodeOne(archive.data(archive.object({"Tesselune.CorrelatedPrecursor", "NSObject"}, keys)));
    ASSERT_TRUE(precursor);
    EXPECT_EQ((*precursor)->precursorMZ(), 0.0);
    EXPECT_TRUE((*precursor)->correlatedFragmentIDs().empty());
    EXPECT_TRUE(isEmptyObjectID((*precursor)->precursorSelectionID()));
  }
  {  // cut short
    MacArchive archive;
    Bytes data = archive.data(macPrecursor(archive));
    data.resize(data.size() / 2);
    EXPECT_FALSE(decodeOne(data));
  }
}

TEST_F(CorrelatedPrecursors, WithoutTheMainApplicationsDelegateLinksFallBack) {
  auto other = std::make_shared<StoreEnvironment>();  // a delegate of another kind
  ClassRegistry::shared().setClass(kCorrelatedPrecursorClassName, CorrelatedPrecursor::codingClass(other));
  MacArchive archive;
  auto precursor = decodeOne(archive.data(macPrecursor(archive)));
  ASSERT_TRUE(precursor);
  EXPECT_TRUE(isEmptyObjectID((*precursor)->precursorSelectionID()));
  EXPECT_FALSE((*precursor)->precursorListID());

  // Without an application object at all the program cannot go on.
  ClassRegistry::shared().setClass(kCorrelatedPrecursorClassName, CorrelatedPrecursor::codingClass(nullptr));
  MacArchive second;
  const Bytes data = second.data(macPrecursor(second));
  EXPECT_THROW((void)KeyedUnarchiver::unarchiveTopLevelObjectWithData(data), FatalError);
  ClassRegistry::shared().setClass(kCorrelatedPrecursorClassName,
                                   CorrelatedPrecursor::codingClass(store_.environment));
}

TEST_F(CorrelatedPrecursors, ContainerRoundTripsInBothFormats) {
  auto precursor = ours();
  auto json = precursor->encodeToContainer(ContainerFormat::Json);
  ASSERT_TRUE(json);
  const std::string text(json->begin(), json->end());
  auto escaped = [](std::string s) {
    for (std::size_t at = s.find('/'); at != std::string::npos; at = s.find('/', at + 2))
      s.replace(at, 1, "\\/");
    return s;
  };
  EXPECT_EQ(text, "{\"correlatedFragmentIDs\":[\"" + kFragmentA.string() + "\",\"" + kFragmentB.string() +
                      "\"],\"curveDistance\":0.0123,\"fragmentsIntensity\":0,\"id\":\"" + kId.string() +
                      "\",\"precursorIntensity\":1500000,\"precursorListURI\":\"" + escaped(uri(listID_)) +
                      "\",\"precursorMZ\":412.2371,\"selectionPrecursorURI\":\"" +
                      escaped(uri(selectionID_)) + "\"}");

  for (auto format : {ContainerFormat::Json, ContainerFormat::PropertyList}) {
    auto data = precursor->encodeToContainer(format);
    ASSERT_TRUE(data);
    auto back = CorrelatedPrecursor::decodeFromContainer(*data, format, store_.environment);
    ASSERT_TRUE(back) << back.error().debugDescription();
    EXPECT_EQ((*back)->id(), kId);
    EXPECT_EQ((*back)->precursorMZ(), 412.2371);
    EXPECT_EQ((*back)->precursorSelectionID(), selectionID_);
    EXPECT_EQ((*back)->precursorListID(), listID_);
    EXPECT_EQ((*back)->correlatedFragmentIDs(), precursor->correlatedFragmentIDs());
    // One intensity is set: nothing to update.
    EXPECT_FALSE((*back)->requiresIntensitiesUpdate());
  }

  // The property-list container macOS's encoder writes: URLs as { "relative": … }.
  Value macContainer = Value::dictionary({
      {"id", Value(kId.string())},
      {"precursorMZ", Value(412.2371)},
      {"curveDistance", Value(0.5)},
      {"fragmentsIntensity", Value(0.0)},
      {"precursorIntensity", Value(0.0)},
      {"selectionPrecursorURI", Value::dictionary({{"relative", Value(uri(selectionID_))}})},
      {"precursorListURI", Value::dictionary({{"relative", Value(uri(listID_))}})},
      {"correlatedFragmentIDs", Value::array({Value(kFragmentA.string())})},
  });
  auto plist = dataWithPropertyList(macContainer);
  ASSERT_TRUE(plist);
  auto decoded =
      CorrelatedPrecursor::decodeFromContainer(*plist, ContainerFormat::PropertyList, store_.environment);
  ASSERT_TRUE(decoded) << decoded.error().debugDescription();
  EXPECT_EQ((*decoded)->precursorListID(), listID_);
  // Both intensities 0: the container path asks for an update, unlike the archive path.
  EXPECT_TRUE((*decoded)->requiresIntensitiesUpdate());
}

TEST_F(CorrelatedPrecursors, JsonContainersDecodeUnderADecimalCommaLocale) {
  test::DecimalCommaLocale locale;
  ASSERT_TRUE(locale.active());
  auto json = ours()->encodeToContainer(ContainerFormat::Json);
  ASSERT_TRUE(json);
  EXPECT_NE(std::string(json->begin(), json->end()).find("\"precursorMZ\":412.2371"), std::string::npos);
  auto back = CorrelatedPrecursor::decodeFromContainer(*json, ContainerFormat::Json, store_.environment);
  ASSERT_TRUE(back) << back.error().debugDescription();
  EXPECT_EQ((*back)->precursorMZ(), 412.2371);
  EXPECT_EQ((*back)->curveDistance(), 0.0123);
  EXPECT_EQ((*back)->precursorIntensity(), 1.5e6);
}

TEST_F(CorrelatedPrecursors, ContainerDecodingFailuresCarryCoderOrUnresolvedLinkCodes) {
  auto base = [&] {
    return Dictionary{
        {"id", Value(kId.string())},
        {"precursorMZ", Value(1.0)},
        {"curveDistance", Value(1.0)},
        {"fragmentsIntensity", Value(1.0)},
        {"precursorIntensity", Value(1.0)},
        {"selectionPrecursorURI", Value(uri(selectionID_))},
        {"precursorListURI", Value(uri(listID_))},
        {"correlatedFragmentIDs", Value(Array{})},
    };
  };
  auto decode = [&](const Dictionary& keys, std::shared_ptr<StoreEnvironment> application) {
    auto data = dataWithPropertyList(Value(keys));
    EXPECT_TRUE(data);
    return CorrelatedPrecursor::decodeFromContainer(*data, ContainerFormat::PropertyList,
                                                    std::move(application));
  };
  struct Case {
    std::string name;
    std::function<void(Dictionary&)> change;
    std::string domain;
    std::int64_t code;
    std::string text;  // the whole text for our own errors, empty for the container's
  };
  const std::string cocoa(kCocoaErrorDomain);
  const std::vector<Case> cases = {
      {"list URI left out", [](Dictionary& d) { d.erase("precursorListURI"); }, cocoa,
       kCoderValueNotFoundError, ""},
      {"id missing", [](Dictionary& d) { d.erase("id"); }, cocoa, kCoderValueNotFoundError, ""},
      {"real is a string", [](Dictionary& d) { d["curveDistance"] = Value("near"); }, cocoa,
       kCoderReadCorruptError, ""},
      {"id not a UUID", [](Dictionary& d) { d["id"] = Value("not-a-uuid"); }, cocoa, kCoderReadCorruptError,
       ""},
      {"selection of another store",
       [](Dictionary& d) { d["selectionPrecursorURI"] = Value(kForeignSelection); }, "Tesselune_Error", 170,
       "Error when trying to retrieve the precursor selection from the store."},
      {"list of another store",
       [](Dictionary& d) {
         d["precursorListURI"] = Value("x-coredata://00000000-1111-2222-3333-444444444444/PrecursorList/p1");
       },
       "Tesselune_Error", 170, "Error when trying to retrieve the precursor list from the store."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Dictionary keys = base();
    c.change(keys);
    auto result = decode(keys, store_.environment);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().domain(), c.domain);
    EXPECT_EQ(result.error().code(), c.code);
    if (!c.text.empty()) {
      EXPECT_EQ(result.error().localizedDescription(), c.text);
    }
  }

  auto noDelegate = decode(base(), std::make_shared<StoreEnvironment>());
  ASSERT_FALSE(noDelegate);
  EXPECT_EQ(noDelegate.error(),
            Error("Tesselune_Error", 170,
                  "Error when trying to retrieve the store coordinator of the application."));
  EXPECT_THROW((void)decode(base(), nullptr), FatalError);

  const std::string garbage = "{\"id\": [";
  EXPECT_FALSE(CorrelatedPrecursor::decodeFromContainer(Bytes(garbage.begin(), garbage.end()),
                                                        ContainerFormat::Json, store_.environment));
}

}  // namespace
}  // namespace tesselune
