// Binding the store model to its classes: the registry of entity classes, the named value
// transformers of the model's transformable attributes, and where the model is found.
//
// The model (Tesselune.xcdatamodeld) is looked for in, in order: the folder named by the
// environment variable TESSELUNE_RESOURCES, then share/tesselune of the prefix the executable runs
// from ("../share/tesselune" for bin/, "../../share/tesselune" for libexec/tesselune/). The build
// tree has the installed layout, so built and installed programs find it the same way.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "foundation/error.h"
#include "model/store_environment.h"
#include "objectstore/description/managed_object_model.h"
#include "objectstore/managed_object.h"

namespace tesselune {

inline constexpr std::string_view kStoreModelName = "Tesselune";

// Registers a factory for every entity class of the store, and StoreObject as the default class;
// every object made gets `environment` (which may be empty: no delegate, no data folder). Also
// registers the model's value transformers (registerStoreValueTransformers). Call once at start,
// before contexts use the registry.
void registerStoreClasses(ManagedObjectClassRegistry& registry,
                          std::shared_ptr<StoreEnvironment> environment);

// The class names registerStoreClasses binds, which are also the model's entity names.
const std::vector<std::string>& storeClassNames();

// The transformers that the model's transformable attributes name, registered process-wide. They
// read and write keyed archives with the classes registered with the archiver. Idempotent and
// thread-safe.
void registerStoreValueTransformers();

// The folders searched for the model, in order (see above); folders that do not exist included.
std::vector<std::filesystem::path> storeResourceFolders();
// The first Tesselune.xcdatamodeld in those folders; fails (260) when there is none.
[[nodiscard]] Expected<std::filesystem::path> storeModelBundlePath();
// The current version of the store model.
[[nodiscard]] Expected<std::shared_ptr<const ManagedObjectModel>> loadStoreModel();

}  // namespace tesselune
