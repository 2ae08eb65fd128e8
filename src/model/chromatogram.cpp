// The chromatogram entities: the data folder cache, the group's start values and count, the
// display keys their descriptions depend on, and the chromatogram's deletion hooks.

#include "model/chromatogram.h"

#include <fmt/format.h>

#include <filesystem>
#include <system_error>

#include "foundation/attributed_string.h"
#include "foundation/predicate.h"
#include "model/data_collection.h"
#include "model/database_search.h"
#include "model/ion_group.h"
#include "model/precursor_list.h"
#include "model/spectrum.h"
#include "objectstore/persistent_store_coordinator.h"
#include "objectstore/sqlite/sqlite_store.h"

namespace tesselune {

namespace {

// The attribute that caches the resolved folder, and the persistent path it is resolved from.
constexpr std::string_view kDataFolderURL = "dataFolderURL";
constexpr std::string_view kDataFolderRelativePath = "dataFolderRelativePath";

bool isDescriptionKey(std::string_view key) {
  return key == "shortObjectDescription" || key == "objectDescription";
}

namespace fs = std::filesystem;

// Where the reports wait for the main application (the data container's temporary folder).
constexpr std::string_view kTemporaryFolderName = "temporaryFiles";
// What sits beside a store file and belongs to it: its logs, and the copy and backup of a migration.
constexpr std::string_view kStoreFileCompanions[] = {"", "-wal", "-shm", "-journal", ".migrating", ".backup"};

Error refusal(std::string_view folder, std::string_view why) {
  return Error(std::string(kCocoaErrorDomain), kFileWriteNoPermissionError,
               fmt::format("\u201c{}\u201d was not removed because {}.", folder, why));
}

// The data folder's path below the library, as it is spelled ("runs/run1", "../elsewhere"); its own
// absolute path when it has nothing in common with the library's.
std::string pathBelow(const fs::path& folder, const fs::path& library) {
  const fs::path relative = folder.lexically_relative(library);
  return relative.empty() ? folder.string() : relative.string();
}

}  // namespace

// What the data folder's removal must leave alone: the library's temporary folder, the store files
// of the context's coordinator that lie in the library, and the folders of the other chromatograms
// still in the store (by path and, links followed, by identity). Fails when the other chromatograms
// cannot be fetched: nothing may be removed then.
Expected<RemovalRules> Chromatogram::rulesForRemovingDataFolder(const FolderDescriptor& library) const {
  RemovalRules rules;
  rules.protectedPaths.emplace_back(kTemporaryFolderName);
  const std::optional<FileIdentity> libraryIdentity = identityBelow(library, ".");
  const ContextHandle held = contextWithFallback();  // kept alive while the rules are read
  ManagedObjectContext* context = held.get();
  if (PersistentStoreCoordinator* coordinator = context ? context->persistentStoreCoordinator() : nullptr) {
    for (const SqliteStore* store : coordinator->persistentStores()) {
      const bool inLibrary = identityBelow(library, store->path().parent_path().string()) == libraryIdentity;
      for (std::string_view suffix : kStoreFileCompanions) {
        const std::string file = store->path().string() + std::string(suffix);
        if (auto identity = identityBelow(library, file)) rules.protectedItems.insert(*identity);
        if (inLibrary) rules.protectedPaths.push_back(fs::path(file).filename().string());
      }
    }
  }
  if (context == nullptr) return rules;

  FetchRequest request = FetchRequest::fetchRequestWithEntityName("Chromatogram");
  request.predicate = *predicateWithFormat("dataFolderRelativePath != nil");
  auto others = context->fetchObjects(request);
  if (!others) return fail(others.error());
  for (const auto& other : *others) {
    if (other->objectID() == objectID()) continue;
    const Value path = other->valueForKey(kDataFolderRelativePath);
    if (!path.isString() || path.asString().empty()) continue;
    rules.protectedPaths.push_back(path.asString());
    if (auto identity = identityBelow(library, path.asString())) rules.protectedItems.insert(*identity);
  }
  return rules;
}

std::optional<Url> Chromatogram::dataFolderURL() const {
  willAccessValueForKey(kDataFolderURL);
  const Value cached = primitiveValueForKey(kDataFolderURL);
  didAccessValueForKey(kDataFolderURL);
  if (cached.isUrl() && !cached.asUrl().isEmpty()) return cached.asUrl();

  const Value relative = valueForKey(kDataFolderRelativePath);
  if (!relative.isString() || relative.asString().empty() || !environment()) return std::nullopt;
  auto directory = environment()->defaultDirectoryURL();
  if (!directory) return std::nullopt;
  // As URLByAppendingPathComponent: without a directory flag: the disk decides.
  Url url = directory->appendingPathComponent(relative.asString(), false);
  std::error_code ec;
  if (url.isFileUrl() && std::filesystem::is_directory(url.path(), ec)) {
    url = directory->appendingPathComponent(relative.asString(), true);
  }
  mutableSelf().setPrimitiveValue(Value(url), kDataFolderURL);
  return url;
}

void Chromatogram::setDataFolderURL(const std::optional<Url>& url) {
  willChangeValueForKey(kDataFolderURL);
  setPrimitiveValue(url ? Value(*url) : Value(), kDataFolderURL);
  didChangeValueForKey(kDataFolderURL);
}

std::vector<std::shared_ptr<ChromatogramGroup>> Chromatogram::chromatogramGroup() const {
  return toMany<ChromatogramGroup>("chromatogramGroup");
}
std::vector<std::shared_ptr<ChromatogramMap>> Chromatogram::chromatogramMaps() const {
  return toMany<ChromatogramMap>("chromatogramMaps");
}
std::vector<std::shared_ptr<ChromatogramNormalization>> Chromatogram::chromatogramNormalizations() const {
  return toMany<ChromatogramNormalization>("chromatogramNormalizations");
}
std::shared_ptr<DatabaseSearchResult> Chromatogram::databaseSearchResult() const {
  return toOne<DatabaseSearchResult>("databaseSearchResult");
}
void Chromatogram::setDatabaseSearchResult(const std::shared_ptr<DatabaseSearchResult>& result) {
  setToOne(result, "databaseSearchResult");
}
std::vector<std::shared_ptr<DataCollection>> Chromatogram::dataCollections() const {
  return toMany<DataCollection>("dataCollections");
}
std::vector<std::shared_ptr<SpectrumSingle>> Chromatogram::fragmentSpectrum() const {
  return toMany<SpectrumSingle>("fragmentSpectrum");
}
std::vector<std::shared_ptr<IonGroup>> Chromatogram::ionGroup() const {
  return toMany<IonGroup>("ionGroup");
}
std::vector<std::shared_ptr<IonVolumeGroup>> Chromatogram::ionVolumeGroups() const {
  return toMany<IonVolumeGroup>("ionVolumeGroups");
}
std::vector<std::shared_ptr<MolecularMarkerGroup>> Chromatogram::molecularMarkerGroups() const {
  return toMany<MolecularMarkerGroup>("molecularMarkerGroups");
}
std::shared_ptr<MolecularReferenceGroup> Chromatogram::molecularReferenceGroup() const {
  return toOne<MolecularReferenceGroup>("molecularReferenceGroup");
}
void Chromatogram::setMolecularReferenceGroup(const std::shared_ptr<MolecularReferenceGroup>& group) {
  setToOne(group, "molecularReferenceGroup");
}
std::vector<std::shared_ptr<ChromatogramAlignment>> Chromatogram::myChromatogramAlignments() const {
  return toMany<ChromatogramAlignment>("myChromatogramAlignments");
}
std::shared_ptr<Protein> Chromatogram::normProtein() const {
  return toOne<Protein>("normProtein");
}
void Chromatogram::setNormProtein(const std::shared_ptr<Protein>& protein) {
  setToOne(protein, "normProtein");
}
std::shared_ptr<ProteinID> Chromatogram::normProteinID() const {
  return toOne<ProteinID>("normProteinID");
}
void Chromatogram::setNormProteinID(const std::shared_ptr<ProteinID>& protein) {
  setToOne(protein, "normProteinID");
}
std::vector<std::shared_ptr<PrecursorListGroup>> Chromatogram::precursorListGroups() const {
  return toMany<PrecursorListGroup>("precursorListGroups");
}
std::vector<std::shared_ptr<PrecursorSelection>> Chromatogram::precursorSelections() const {
  return toMany<PrecursorSelection>("precursorSelections");
}
std::vector<std::shared_ptr<ProteinGroup>> Chromatogram::proteinGroups() const {
  return toMany<ProteinGroup>("proteinGroups");
}
std::vector<std::shared_ptr<Protein>> Chromatogram::proteins() const {
  return toMany<Protein>("proteins");
}
std::vector<std::shared_ptr<ChromatogramAlignment>> Chromatogram::referenceChromatogramAlignments() const {
  return toMany<ChromatogramAlignment>("referenceChromatogramAlignments");
}
std::shared_ptr<ProteinGroup> Chromatogram::referenceProteinGroup() const {
  return toOne<ProteinGroup>("referenceProteinGroup");
}
void Chromatogram::setReferenceProteinGroup(const std::shared_ptr<ProteinGroup>& group) {
  setToOne(group, "referenceProteinGroup");
}
std::vector<std::shared_ptr<SpectrumSingle>> Chromatogram::spectrum() const {
  return toMany<SpectrumSingle>("spectrum");
}
std::vector<std::shared_ptr<SpectrumSingle>> Chromatogram::spectrumDerived() const {
  return toMany<SpectrumSingle>("spectrumDerived");
}

Value Chromatogram::valueForKey(std::string_view key) const {
  if (key == kDataFolderURL) {
    auto url = dataFolderURL();
    return url ? Value(*url) : Value();
  }
  return StoreObject::valueForKey(key);
}

void Chromatogram::setValueForKey(Value value, std::string_view key) {
  if (key == kDataFolderURL) {
    setDataFolderURL(value.isUrl() ? std::optional<Url>(value.asUrl()) : std::nullopt);
    return;
  }
  StoreObject::setValueForKey(std::move(value), key);
}

void ChromatogramGroup::awakeFromInsert() {
  // Font and colour as the archived attribute dictionaries name them; the main application turns
  // them into its own font and colour objects.
  Dictionary attributes{
      {"NSFont",
       Value(Dictionary{{"NSName", Value(".AppleSystemUIFont")}, {"NSSize", Value(kInfoFontSize)}})},
      {"NSColor", Value(Dictionary{{"NSCatalogName", Value("System")}, {"NSColorName", Value("textColor")}})},
  };
  auto info =
      std::make_shared<AttributedString>(" ", std::vector<AttributedString::Run>{{1, std::move(attributes)}},
                                         /*isMutable=*/true);
  setValue(Value(ObjectPtr(std::move(info))), "info");
  StoreObject::awakeFromInsert();
}

std::uint64_t ChromatogramGroup::numberOfChromatograms() const {
  return objectsForKey("chromatograms").size();
}

Value ChromatogramGroup::valueForKey(std::string_view key) const {
  if (key == "numberOfChromatograms") return Value(numberOfChromatograms());
  return StoreObject::valueForKey(key);
}

std::set<std::string> ChromatogramGroup::keyPathsForValuesAffectingValueForKey(std::string_view key) const {
  auto paths = StoreObject::keyPathsForValuesAffectingValueForKey(key);
  if (isDescriptionKey(key)) paths.insert("chromatograms");
  if (key == "objectName") paths.insert("chromatogramGroupName");
  return paths;
}

std::set<std::string> ChromatogramAlignment::keyPathsForValuesAffectingValueForKey(
    std::string_view key) const {
  auto paths = StoreObject::keyPathsForValuesAffectingValueForKey(key);
  if (isDescriptionKey(key)) paths.insert("chromatogramGroup.objectName");
  return paths;
}

ChromatogramMap::~ChromatogramMap() {
  // The display manager may point back at the map; let it go before the map's values do.
  displayManager_.reset();
}

std::vector<ManagedObjectID> Chromatogram::willBeDeleted(ProgressReporter* reporter,
                                                         const DeletionSupport& support) {
  std::int64_t indicator = 0;
  std::int64_t maximum = 0;
  if (reporter != nullptr) {
    indicator = reporter->indicatorValue();
    maximum = static_cast<std::int64_t>(reporter->maximumIndicatorValue());
    reporter->setMaximumIndicatorValue(-1.0);
    reporter->setInfoText("Deleting a chromatogram: removing data files");
  }
  removeDataFolder(support);
  if (reporter != nullptr) {
    reporter->setMaximumIndicatorValue(static_cast<double>(maximum));
    reporter->setIndicatorValue(indicator);
    reporter->setInfoText("Deleting a chromatogram: removing store entries");
  }
  return batchDeleteCascadingRelationshipObjects(reporter, support);
}

void Chromatogram::removeDataFolder(const DeletionSupport& support) {
  // Without a folder of its own nothing on disk is touched.
  const std::optional<Url> url = dataFolderURL();
  if (!url || !url->isFileUrl()) return;
  // An absolute relative path names no data folder, whatever the URL made of it: it is judged
  // where it points.
  const Value relativePath = valueForKey(kDataFolderRelativePath);
  const bool absolute = relativePath.isString() && fs::path(relativePath.asString()).is_absolute();
  const fs::path folder = absolute ? fs::path(relativePath.asString()) : fs::path(url->path());
  // Not reachable: nothing to do and nothing to say (this look decides nothing else).
  std::error_code ec;
  if (!fs::exists(fs::symlink_status(folder, ec))) return;

  auto remove = [&]() -> Status {
    const std::optional<Url> library = environment() ? environment()->defaultDirectoryURL() : std::nullopt;
    if (!library || !library->isFileUrl())
      return fail(refusal(folder.string(), "the data library is unknown"));
    auto base = FolderDescriptor::open(library->path());
    if (!base) return fail(refusal(folder.string(), "the data library cannot be found"));
    const std::string below = absolute ? folder.string() : pathBelow(folder, fs::path(library->path()));
    auto rules = rulesForRemovingDataFolder(*base);
    if (!rules) {
      return fail(refusal(below, fmt::format("the folders of the other chromatograms are unknown: {}",
                                             rules.error().localizedDescription())));
    }
    auto removed = removeBelow(*base, below, *rules);
    if (!removed) return fail(removed.error());
    return {};
  };
  Status removed = remove();
  if (removed) return;

  const Value name = valueForKey("chromatogramName");
  const std::string message = fmt::format(
      "Error when deleting chromatographic data of chromatogram: \"{}\". \rUse the command \"File -> Show in "
      "Finder\" to remove the data manually.",
      name.isString() ? name.asString() : std::string("unnamed"));
  support.presentError(removed.error().customErrorWithDomain("Tesselune_Error", 106, message), std::nullopt);
}

std::vector<ManagedObjectID> Chromatogram::batchDeleteCascadingRelationshipObjects(
    ProgressReporter* reporter, const DeletionSupport& support) {
  return cleanOutCascadingRelationships(
      reporter, support, {}, [&support](const RelationshipDescription& relationship, const Error& error) {
        const EntityDescription* destination = relationship.destinationEntity();
        std::string label = destination ? destination->name() : std::string();
        if (label == "SpectrumSingle") {
          const std::string& inverse = relationship.inverseRelationshipName();
          label = inverse == "chromatogramNative"      ? "Spectrum"
                  : inverse == "precursorChromatogram" ? "FragmentSpectrum"
                                                       : "SpectrumSingle";
        }
        support.logLine(fmt::format(
            "An error occurred when cleaning out relationships in course of a batch delete.\nPrimary object: "
            "chromatogram - entities: {}\nError:{}",
            label, error.localizedDescription()));
      });
}

}  // namespace tesselune
