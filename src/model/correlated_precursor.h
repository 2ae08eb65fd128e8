// CorrelatedPrecursor: one precursor ion with the fragment ions that correlate with it, kept in
// arrays inside a PrecursorList's stored attribute. It names store objects only by their IDs:
// archives carry their URIs, which decoding turns back into IDs through the application
// delegate's coordinator.
//
// Two serialisations share the field names: the keyed archive the store keeps (class name
// "Tesselune.CorrelatedPrecursor") and the keyed container of the standard encoder protocol, here
// with JSON or a property list as the container format. They differ on purpose in how strictly
// they read: the archive falls back (a selection ID that cannot be resolved becomes an empty one),
// the container fails with errors of domain "Tesselune_Error", code 170.
//
// A precursor is used by one thread at a time. Its context is held weakly: once the context is
// destroyed the precursor has none.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/coding.h"
#include "foundation/error.h"
#include "foundation/uuid.h"
#include "foundation/value.h"
#include "model/store_environment.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/managed_object_id.h"

namespace tesselune {

inline constexpr std::string_view kCorrelatedPrecursorClassName = "Tesselune.CorrelatedPrecursor";
inline constexpr std::string_view kTesseluneErrorDomain = "Tesselune_Error";
inline constexpr std::int64_t kStoreRetrievalErrorCode = 170;

// The container formats the encoder protocol is used with here.
enum class ContainerFormat { Json, PropertyList };

class CorrelatedPrecursor final : public Object, public Coding {
 public:
  // The coding keys of the encoder container, in their declared order (their names are the
  // archive's keys too).
  static const std::vector<std::string_view>& codingKeys();

  // A new precursor without list, intensities or fragments. `application` is the application
  // object whose delegate resolves URIs when this precursor's kind is decoded.
  CorrelatedPrecursor(Uuid id, double precursorMZ, double curveDistance, ManagedObjectID precursorSelectionID,
                      std::shared_ptr<StoreEnvironment> application);

  // The archive class of "Tesselune.CorrelatedPrecursor": blank instances that know `application`.
  static CodingClass codingClass(std::shared_ptr<StoreEnvironment> application);

  std::string className() const override { return std::string(kCorrelatedPrecursorClassName); }
  std::vector<std::string> classChain() const override;
  Value valueForKey(std::string_view key) const override;

  // Keyed archive. Decoding fails only when "id" is not a UUID; everything else falls back.
  void encodeWithCoder(KeyedArchiver& coder) const override;
  [[nodiscard]] Status initWithCoder(KeyedUnarchiver& coder) override;

  // Encoder container: every key in CodingKeys order, "precursorListURI" only with a list ID.
  // Fails (Cocoa 4866) for a value the format cannot hold (a non-finite real in JSON, an empty ID).
  [[nodiscard]] Expected<Bytes> encodeToContainer(ContainerFormat format) const;
  // Every key is required; a missing key fails with Cocoa 4865, a mistyped value with 4864, an
  // unresolvable URI or a missing coordinator with code 170 of "Tesselune_Error". A decoded
  // precursor whose two intensities are both 0 requires an intensities update.
  [[nodiscard]] static Expected<std::shared_ptr<CorrelatedPrecursor>> decodeFromContainer(
      std::span<const std::uint8_t> data, ContainerFormat format,
      std::shared_ptr<StoreEnvironment> application);

  // The context set, empty when none; held, the handle keeps it alive.
  ContextHandle managedObjectContext() const { return context_.lock(); }
  void setManagedObjectContext(ManagedObjectContext* context) { context_ = context; }
  const std::shared_ptr<StoreEnvironment>& application() const { return application_; }
  void setApplication(std::shared_ptr<StoreEnvironment> application) {
    application_ = std::move(application);
  }

  const Uuid& id() const { return id_; }
  double precursorMZ() const { return precursorMZ_; }
  double curveDistance() const { return curveDistance_; }
  double fragmentsIntensity() const { return fragmentsIntensity_; }
  void setFragmentsIntensity(double value) { fragmentsIntensity_ = value; }
  double precursorIntensity() const { return precursorIntensity_; }
  void setPrecursorIntensity(double value) { precursorIntensity_ = value; }
  // Never absent: an empty ID (isEmptyObjectID) when the archive named no object of the store.
  const ManagedObjectID& precursorSelectionID() const { return precursorSelectionID_; }
  void setPrecursorSelectionID(ManagedObjectID id) { precursorSelectionID_ = std::move(id); }
  const std::optional<ManagedObjectID>& precursorListID() const { return precursorListID_; }
  void setPrecursorListID(std::optional<ManagedObjectID> id) { precursorListID_ = std::move(id); }
  const std::set<Uuid>& correlatedFragmentIDs() const { return correlatedFragmentIDs_; }
  void setCorrelatedFragmentIDs(std::set<Uuid> ids) { correlatedFragmentIDs_ = std::move(ids); }
  bool requiresIntensitiesUpdate() const { return requiresIntensitiesUpdate_; }
  void setRequiresIntensitiesUpdate(bool value) { requiresIntensitiesUpdate_ = value; }

 private:
  struct Blank {};
  CorrelatedPrecursor(Blank, std::shared_ptr<StoreEnvironment> application);

  WeakContext context_;
  std::shared_ptr<StoreEnvironment> application_;
  Uuid id_;
  double precursorMZ_ = 0;
  double curveDistance_ = 0;
  double fragmentsIntensity_ = 0;
  double precursorIntensity_ = 0;
  ManagedObjectID precursorSelectionID_;
  std::optional<ManagedObjectID> precursorListID_;
  std::set<Uuid> correlatedFragmentIDs_;
  bool requiresIntensitiesUpdate_ = false;
};

}  // namespace tesselune
