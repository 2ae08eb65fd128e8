// The bits that archived models (Z_MODELCACHE) pack into a property's "_P" key and an attribute's
// "NSFlagsKey", for the cache's reader and writer.
#pragma once

#include <cstdint>

namespace tesselune::archived_model {

// "_P": bits every description written since about 2015 carries, and the property's own.
inline constexpr std::int64_t kPropertyFlagsBase = 0xF1;
inline constexpr std::int64_t kOptionalFlag = 0x2;
inline constexpr std::int64_t kReadOnlyFlag = 0x4;
inline constexpr std::int64_t kTransientFlag = 0x8;
inline constexpr std::int64_t kOrderedFlag = 0x400;
// "NSFlagsKey" of an attribute.
inline constexpr std::int64_t kExternalStorageFlag = 0x4;
inline constexpr std::int64_t kPreserveAfterDeletionFlag = 0x10;

}  // namespace tesselune::archived_model
