// Fuzz target: the reader of a store's cached model must turn any input into a model or an Error,
// within bounded memory. The input is tried twice: as the stored (compressed) content, and
// compressed here first, so that mutations also reach the archive walk behind the inflater (seed
// the corpus with inflated Z_MODELCACHE archives for that).

#include <zlib.h>

#include <cstdint>
#include <span>
#include <vector>

#include "objectstore/description/managed_object_model.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using tesselune::ManagedObjectModel;
  const std::span bytes(data, size);
  if (auto model = ManagedObjectModel::modelFromCachedContent(bytes, "fuzz")) {
    (void)(*model)->entityVersionHashes();
  }

  z_stream stream{};
  if (size > (1u << 20) || deflateInit2(&stream, 1, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK) return 0;
  std::vector<std::uint8_t> compressed(deflateBound(&stream, size));
  stream.next_in = const_cast<Bytef*>(data);
  stream.avail_in = static_cast<uInt>(size);
  stream.next_out = compressed.data();
  stream.avail_out = static_cast<uInt>(compressed.size());
  const int rc = deflate(&stream, Z_FINISH);
  compressed.resize(stream.total_out);
  deflateEnd(&stream);
  if (rc != Z_STREAM_END) return 0;
  if (auto model = ManagedObjectModel::modelFromCachedContent(compressed, "fuzz")) {
    (void)(*model)->entityVersionHashes();
  }
  return 0;
}
