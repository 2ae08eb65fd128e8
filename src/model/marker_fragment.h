// MarkerFragment: one fragment ion (an m/z value) of a molecular marker, with the times at which it
// correlates in given chromatograms, kept archived inside its MarkerFragmentGroup's stored set. It
// names its group by object ID only and resolves it in a context on demand, so it stays valid
// across contexts once that ID is permanent.
//
// Archive (class name "Tesselune.MarkerFragment"), in writing order: "id" (the UUID's string),
// "mzValue" (a real), the two parallel arrays
// "correlationBasedTimeInChromatograms_chromatogramURIString" ([String]) and
// "correlationBasedTimeInChromatograms_correlationBasedTimes" ([[Double]]), and
// "markerFragmentGroupURI" (the URL as { "relative", "base" }), all but "mzValue" in the shapes
// encodeEncodable gives.
//
// Store failures are reported by one line on standard output and otherwise passed over; no context
// at all (no context set and no delegate context) is a FatalError. Every store access goes through
// performBlockAndWait of the context in use; the fragment's own fields are used by one thread at a
// time. Its context is held weakly: once the context is destroyed the fragment
// falls back on the delegate's. Sets hold fragments by identity.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/coding.h"
#include "foundation/predicate.h"
#include "foundation/url.h"
#include "foundation/uuid.h"
#include "foundation/value.h"
#include "model/store_environment.h"
#include "objectstore/managed_object_context.h"
#include "objectstore/managed_object_id.h"

namespace tesselune {

class MarkerFragmentGroup;

inline constexpr std::string_view kMarkerFragmentClassName = "Tesselune.MarkerFragment";
// Keys of one entry of correlationBasedTimesInChromatograms.
inline constexpr std::string_view kChromatogramURIStringKey = "chromatogramURIString";
inline constexpr std::string_view kCorrelationBasedTimesKey = "correlationBasedTimes";

class MarkerFragment final : public Object, public Coding {
 public:
  // The designated initialiser. A temporary group ID is made permanent on `context` first; when
  // that fails the line "Error when creating a marker fragment. …" is printed and it is kept.
  MarkerFragment(double mzValue, ManagedObjectContext* context, Uuid id,
                 ManagedObjectID markerFragmentGroupID, std::shared_ptr<StoreEnvironment> application);

  // The archive class of "Tesselune.MarkerFragment": blank instances that know `application`.
  static CodingClass codingClass(std::shared_ptr<StoreEnvironment> application);

  std::string className() const override { return std::string(kMarkerFragmentClassName); }
  std::vector<std::string> classChain() const override;
  Value valueForKey(std::string_view key) const override;

  void encodeWithCoder(KeyedArchiver& coder) const override;
  // Fails without a message when the delegate offers no coordinator or the group URI is missing or
  // names no object of the store. Throws FatalError without an application object.
  [[nodiscard]] Status initWithCoder(KeyedUnarchiver& coder) override;

  // A new fragment with the same id, m/z value, group ID, context (as managedObjectContext answers
  // it) and correlation entries.
  std::shared_ptr<MarkerFragment> exactCopy() const;

  const Uuid& id() const { return id_; }
  double mzValue() const { return mzValue_; }
  // Stores the value, then makes the group store its set anew (refreshMarkerFragmentGroup).
  void setMzValue(double mzValue);
  // Entries of { "chromatogramURIString": String, "correlationBasedTimes": [Double] }.
  const Array& correlationBasedTimesInChromatograms() const { return correlationBasedTimes_; }
  void setCorrelationBasedTimesInChromatograms(Array entries) { correlationBasedTimes_ = std::move(entries); }

  // The context set, else the delegate's, as a handle that keeps it alive while held; FatalError
  // when there is neither.
  ContextHandle managedObjectContext() const;
  void setManagedObjectContext(ManagedObjectContext* context) { context_ = context; }
  const std::shared_ptr<StoreEnvironment>& application() const { return application_; }
  void setApplication(std::shared_ptr<StoreEnvironment> application) {
    application_ = std::move(application);
  }

  const ManagedObjectID& markerFragmentGroupID() const { return groupID_; }
  void setMarkerFragmentGroupID(ManagedObjectID id) { groupID_ = std::move(id); }
  Url markerFragmentGroupURI() const { return groupID_.URIRepresentation(); }
  // The group in managedObjectContext; nullptr when it is missing (a line is printed) or of
  // another class.
  std::shared_ptr<MarkerFragmentGroup> markerFragmentGroup() const;
  // Links to the group by its ID, made permanent first; nullptr changes nothing. The group's own
  // set is not touched.
  void setMarkerFragmentGroup(const std::shared_ptr<MarkerFragmentGroup>& group);

  // "chromatogram ==[c] $chromatogram", for finding the ion volumes of one chromatogram.
  const Predicate& ionVolumeSearchPredicate() const { return ionVolumeSearchPredicate_; }

 private:
  struct Blank {};
  MarkerFragment(Blank, std::shared_ptr<StoreEnvironment> application);
  void refreshMarkerFragmentGroup();

  Uuid id_;
  double mzValue_ = 0;
  WeakContext context_;
  std::shared_ptr<StoreEnvironment> application_;
  Array correlationBasedTimes_;
  Predicate ionVolumeSearchPredicate_;
  ManagedObjectID groupID_;
};

}  // namespace tesselune
