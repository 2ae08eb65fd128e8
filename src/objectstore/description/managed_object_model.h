// ManagedObjectModel: the entities of a store, as NSManagedObjectModel, loaded from Xcode's model
// source (a .xcdatamodeld folder, a .xcdatamodel folder or its "contents" file) or from the copy of
// the model that a store keeps inside itself (Z_MODELCACHE).
//
// A model is immutable once loaded and shared (std::shared_ptr) by everything that uses it; all
// reads are thread-safe. Entity and property descriptions live as long as the model.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "foundation/error.h"
#include "foundation/sha256.h"
#include "objectstore/description/entity_description.h"

namespace tesselune {

class ManagedObjectModel {
 public:
  // Loads a model from a .xcdatamodeld folder (its current version, named by .xccurrentversion), a
  // .xcdatamodel folder or a "contents" file. Errors name the file, the element and the fault.
  [[nodiscard]] static Expected<std::shared_ptr<const ManagedObjectModel>> modelWithContentsOfFile(
      const std::filesystem::path& path);
  // Every version in a .xcdatamodeld folder, by version name ("Moody 2"): the candidates for the
  // model a store was made with.
  [[nodiscard]] static Expected<std::map<std::string, std::shared_ptr<const ManagedObjectModel>>>
  modelVersionsInBundle(const std::filesystem::path& bundle);
  // Parses the XML of a model's "contents" file; `source` names it in errors.
  [[nodiscard]] static Expected<std::shared_ptr<const ManagedObjectModel>> modelWithXml(
      std::string_view xml, const std::string& source);

  // The model a store caches of itself: Z_MODELCACHE.Z_CONTENT, a keyed archive compressed with raw
  // DEFLATE. `source` names the store in errors. Fails, never crashes, on any malformed content:
  // 4864 for what is not a model archive (3840 when not even a property list). Inflating stops
  // with an error beyond kMaxCachedModelSize.
  [[nodiscard]] static Expected<std::shared_ptr<const ManagedObjectModel>> modelFromCachedContent(
      std::span<const std::uint8_t> content, const std::string& source);
  // The model cached in the store file at `store`, read without writing (though SQLite may touch a
  // WAL store's -shm file), returned only when its entity version hashes are the store's
  // NSStoreModelVersionHashes. Fails with 260 for a missing file, 4865 when the store holds no
  // cached model or no metadata, 134100 when the hashes disagree, and as modelFromCachedContent.
  [[nodiscard]] static Expected<std::shared_ptr<const ManagedObjectModel>> modelFromStore(
      const std::filesystem::path& store);
  // The content of Z_MODELCACHE for a store of this model: the model's keyed archive, as Core Data
  // writes it, compressed with raw DEFLATE. modelFromCachedContent reads it back with the same
  // entity version hashes.
  [[nodiscard]] Expected<Bytes> cachedContent() const;
  // Largest inflated cache accepted: real models inflate to a few hundred KiB at most.
  static constexpr std::size_t kMaxCachedModelSize = 64u << 20;

  // Entities sorted by name.
  const std::vector<std::unique_ptr<EntityDescription>>& entities() const { return entities_; }
  const EntityDescription* entityNamed(std::string_view name) const;
  const std::vector<std::string>& versionIdentifiers() const { return versionIdentifiers_; }

  // The version hash of every entity, as stores record them in their metadata
  // (NSStoreModelVersionHashes); two models whose hashes agree can open each other's stores.
  std::map<std::string, Sha256::Digest, std::less<>> entityVersionHashes() const;
  // isConfiguration:compatibleWithStoreMetadata:: whether the metadata's entity hashes
  // (NSStoreModelVersionHashes) are exactly this model's.
  bool isCompatibleWithStoreMetadata(const Dictionary& metadata) const;

 private:
  friend class ModelBuilder;
  std::vector<std::unique_ptr<EntityDescription>> entities_;
  std::map<std::string, const EntityDescription*, std::less<>> entitiesByName_;
  std::vector<std::string> versionIdentifiers_;
};

}  // namespace tesselune
