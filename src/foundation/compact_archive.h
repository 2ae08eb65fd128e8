// Keyed archives of two plain shapes, written straight into the binary property-list format: an
// array of URLs, and a dictionary of data.
//
// The general archiver builds the whole archive as a tree of Values before writing it (some 2.5 KB
// per URL) and copies every piece of data into it. A deletion report of one large chromatogram holds
// hundreds of thousands of URLs, archived, inside a dictionary, archived again; the report takes
// these paths: a compact object table, a tenth of the memory, the same bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

#include "foundation/error.h"
#include "foundation/url.h"
#include "foundation/value.h"

namespace tesselune {

// The same bytes as KeyedArchiver::archivedDataWithRootObject of an immutable Array of the URLs
// with secure coding off, in the binary format (URLs relative to a base take that general path).
// Fails as it does (4866) when a URL's text cannot be written. Thread-safe; the URLs are read only.
[[nodiscard]] Expected<Bytes> archivedURLArray(std::span<const Url> urls);

// One entry of a data dictionary: a key and the bytes under it, read in place.
using DataEntry = std::pair<std::string_view, std::span<const std::uint8_t>>;
// The same bytes as KeyedArchiver::archivedDataWithRootObject of an immutable Dictionary of the
// entries' keys to (immutable) data, secure coding off, binary format. Entries whose keys are not
// in strictly ascending byte order (as a Dictionary holds them), or not writable text, take that
// general path, which sorts them, keeps the first of equal keys and fails on unwritable text (4866).
// The bytes are read in place, never copied. Thread-safe.
[[nodiscard]] Expected<Bytes> archivedDataDictionary(std::span<const DataEntry> entries);

}  // namespace tesselune
