// The keyed archive of an array of URLs, written straight into the binary property-list format.
//
// The general archiver builds the whole archive as a tree of Values before writing it, some 2.5 KB
// per URL. A deletion report of one large chromatogram holds hundreds of thousands of URLs, so the
// report takes this path: a compact object table, a tenth of the memory, same bytes.
#pragma once

#include <span>

#include "foundation/error.h"
#include "foundation/url.h"
#include "foundation/value.h"

namespace tesselune {

// The same bytes as KeyedArchiver::archivedDataWithRootObject of an immutable Array of the URLs
// with secure coding off, in the binary format (URLs relative to a base take that general path).
// Fails as it does (4866) when a URL's text cannot be written. Thread-safe; the URLs are read only.
[[nodiscard]] Expected<Bytes> archivedURLArray(std::span<const Url> urls);

}  // namespace tesselune
