// The registry of the store's entity classes, the model's value transformers and the model's
// location.

#include "model/store_classes.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <mutex>
#include <system_error>

#include "foundation/coding.h"
#include "foundation/value_transformer.h"
#include "model/chromatogram.h"
#include "model/correlated_precursor.h"
#include "model/data_collection.h"
#include "model/database_search.h"
#include "model/ion_group.h"
#include "model/ion_volume.h"
#include "model/marker_fragment.h"
#include "model/precursor_list.h"
#include "model/spectrum.h"

namespace tesselune {

namespace {

struct StoreClass {
  std::string_view name;
  std::function<std::shared_ptr<StoreObject>()> make;
};

template <class T>
StoreClass storeClass(std::string_view name) {
  return StoreClass{name, [] { return std::make_shared<T>(); }};
}

const std::vector<StoreClass>& storeClasses() {
  static const std::vector<StoreClass> classes = {
      storeClass<Chromatogram>("Chromatogram"),
      storeClass<ChromatogramGroup>("ChromatogramGroup"),
      storeClass<ChromatogramAlignment>("ChromatogramAlignment"),
      storeClass<ChromatogramMap>("ChromatogramMap"),
      storeClass<ChromatogramNormalization>("ChromatogramNormalization"),
      storeClass<DataCollection>("DataCollection"),
      storeClass<DatabaseSearchResult>("DatabaseSearchResult"),
      storeClass<DatabaseSearchJoin>("DatabaseSearchJoin"),
      storeClass<IonGroup>("IonGroup"),
      storeClass<NormIonGroup>("NormIonGroup"),
      storeClass<IonVolumeGroup>("IonVolumeGroup"),
      storeClass<PeptideID>("PeptideID"),
      storeClass<PeptideIDJoined>("PeptideIDJoined"),
      storeClass<ProteinID>("ProteinID"),
      storeClass<ProteinIDJoined>("ProteinIDJoined"),
      storeClass<Peptide>("Peptide"),
      storeClass<Protein>("Protein"),
      storeClass<ProteinGroup>("ProteinGroup"),
      storeClass<PrecursorSelection>("PrecursorSelection"),
      storeClass<SpectrumSingle>("SpectrumSingle"),
      storeClass<Spectrum>("Spectrum"),
      storeClass<FragmentSpectrum>("FragmentSpectrum"),
      storeClass<ChromatogramSpectrum>("ChromatogramSpectrum"),
      storeClass<SpectrumView>("SpectrumView"),
      storeClass<Sequence>("Sequence"),
      storeClass<MarkerSet>("MarkerSet"),
      storeClass<MolecularMarkerGroup>("MolecularMarkerGroup"),
      storeClass<MolecularMarker>("MolecularMarker"),
      storeClass<MolecularReferenceGroup>("MolecularReferenceGroup"),
      storeClass<MolecularReference>("MolecularReference"),
      storeClass<PrecursorListGroup>("PrecursorListGroup"),
      storeClass<PrecursorList>("PrecursorList"),
      storeClass<ManagedCachedData>("ManagedCachedData"),
      storeClass<MarkerFragmentGroup>("MarkerFragmentGroup"),
  };
  return classes;
}

// The transformers the model names for archived value objects. Each archives with the keyed
// archiver as the default transformer does; the names keep the store's attributes apart from
// the platform's defaults.
constexpr std::string_view kTransformerNames[] = {
    "SpectrumModelTransformer",
    "IonVolumeSetTransformer",
    "CorrelatedPrecursorArrayTransformer",
    "MarkerFragmentSetTransformer",
};

class KeyedArchiveValueTransformer final : public ValueTransformer {
 public:
  explicit KeyedArchiveValueTransformer(std::shared_ptr<const ValueTransformer> archiver)
      : archiver_(std::move(archiver)) {}
  Expected<Bytes> transformedValue(const Value& value) const override {
    return archiver_->transformedValue(value);
  }
  Expected<Value> reverseTransformedValue(const Bytes& data) const override {
    return archiver_->reverseTransformedValue(data);
  }

 private:
  std::shared_ptr<const ValueTransformer> archiver_;
};

std::optional<std::filesystem::path> executableFolder() {
  std::error_code ec;
  auto executable = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return std::nullopt;
  return executable.parent_path();
}

}  // namespace

void registerStoreClasses(ManagedObjectClassRegistry& registry,
                          std::shared_ptr<StoreEnvironment> environment) {
  registerStoreValueTransformers();
  // The archived value objects written by the main application under their Swift class names. The
  // mapping is process-wide, but objects decoded while a context reads its store get that store's
  // environment and coordinator (found through the registry's user info); only archives decoded
  // outside any store read fall back on the environment registered last.
  registry.setUserInfo(environment);
  ClassRegistry& archiveClasses = ClassRegistry::shared();
  archiveClasses.setClass(kMarkerFragmentClassName, MarkerFragment::codingClass(environment));
  archiveClasses.setClass(kIonVolumeClassName, IonVolume::codingClass(environment));
  archiveClasses.setClass(kCorrelatedPrecursorClassName, CorrelatedPrecursor::codingClass(environment));
  for (const StoreClass& storeClass : storeClasses()) {
    registry.registerClass(std::string(storeClass.name), [make = storeClass.make, environment] {
      auto object = make();
      object->setEnvironment(environment);
      return object;
    });
  }
  registry.setDefaultFactory([environment] {
    auto object = std::make_shared<StoreObject>();
    object->setEnvironment(environment);
    return object;
  });
}

const std::vector<std::string>& storeClassNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> list;
    for (const StoreClass& storeClass : storeClasses()) list.emplace_back(storeClass.name);
    return list;
  }();
  return names;
}

void registerStoreValueTransformers() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto archiver = ValueTransformer::valueTransformerForName("NSSecureUnarchiveFromData");
    for (std::string_view name : kTransformerNames) {
      ValueTransformer::setValueTransformer(std::make_shared<KeyedArchiveValueTransformer>(archiver), name);
    }
  });
}

std::vector<std::filesystem::path> storeResourceFolders() {
  std::vector<std::filesystem::path> folders;
  if (const char* named = std::getenv("TESSELUNE_RESOURCES"); named != nullptr && *named != '\0') {
    folders.emplace_back(named);
  }
  // Programs live in bin/ or libexec/tesselune/ of a prefix (installed, or the build tree, which
  // has the same layout) and the resources in share/tesselune/ of the same prefix.
  if (auto folder = executableFolder()) {
    folders.push_back(*folder / ".." / "share" / "tesselune");
    folders.push_back(*folder / ".." / ".." / "share" / "tesselune");
  }
  return folders;
}

Expected<std::filesystem::path> storeModelBundlePath() {
  const std::string bundle = std::string(kStoreModelName) + ".xcdatamodeld";
  for (const auto& folder : storeResourceFolders()) {
    std::error_code ec;
    if (std::filesystem::is_directory(folder / bundle, ec)) return folder / bundle;
  }
  return fail(Error(std::string(kCocoaErrorDomain), kFileReadNoSuchFileError,
                    fmt::format("The store model {} was not found in any resource folder.", bundle)));
}

Expected<std::shared_ptr<const ManagedObjectModel>> loadStoreModel() {
  auto path = storeModelBundlePath();
  if (!path) return fail(path.error());
  return ManagedObjectModel::modelWithContentsOfFile(*path);
}

}  // namespace tesselune
