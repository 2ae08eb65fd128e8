// The chromatogram entities: the data folder cache, the group's start values and count, and the
// display keys their descriptions depend on.

#include "model/chromatogram.h"

#include <filesystem>
#include <system_error>

#include "foundation/attributed_string.h"

namespace tesselune {

namespace {

// The attribute that caches the resolved folder, and the persistent path it is resolved from.
constexpr std::string_view kDataFolderURL = "dataFolderURL";
constexpr std::string_view kDataFolderRelativePath = "dataFolderRelativePath";

bool isDescriptionKey(std::string_view key) {
  return key == "shortObjectDescription" || key == "objectDescription";
}

}  // namespace

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

}  // namespace tesselune
