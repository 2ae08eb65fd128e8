// MarkerFragment: the designated initialiser, the archive, and the link to the owning group.

#include "model/marker_fragment.h"

#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"
#include "model/application_object.h"
#include "model/marker_fragment_group.h"

namespace tesselune {

namespace {

constexpr std::string_view kId = "id";
constexpr std::string_view kMzValue = "mzValue";
constexpr std::string_view kURIStrings = "correlationBasedTimeInChromatograms_chromatogramURIString";
constexpr std::string_view kTimes = "correlationBasedTimeInChromatograms_correlationBasedTimes";
constexpr std::string_view kGroupURI = "markerFragmentGroupURI";

Predicate makeIonVolumeSearchPredicate() {
  return Predicate::comparison(Expression::keyPath("chromatogram"), ComparisonOperator::EqualTo,
                               Expression::variable("chromatogram"), kCaseInsensitive);
}

// One entry's times as doubles; empty unless every element is a number.
std::vector<double> timesOfEntry(const Value& entry) {
  const Value& times = entry[kCorrelationBasedTimesKey];
  std::vector<double> doubles;
  if (!times.isArray()) return doubles;
  for (const Value& time : times.asArray()) {
    if (!time.isNumber()) return {};
    doubles.push_back(time.doubleValue());
  }
  return doubles;
}

}  // namespace

MarkerFragment::MarkerFragment(Blank, std::shared_ptr<StoreEnvironment> application)
    : application_(std::move(application)), ionVolumeSearchPredicate_(makeIonVolumeSearchPredicate()) {}

MarkerFragment::MarkerFragment(double mzValue, ManagedObjectContext* context, Uuid id,
                               ManagedObjectID markerFragmentGroupID,
                               std::shared_ptr<StoreEnvironment> application)
    : MarkerFragment(Blank{}, std::move(application)) {
  mzValue_ = mzValue;
  id_ = id;
  context_ = context;
  if (markerFragmentGroupID.isTemporaryID() && context != nullptr) {
    context->performBlockAndWait([&] {
      auto group = context->objectWithID(markerFragmentGroupID);
      if (auto made = context->obtainPermanentIDsForObjects({group})) {
        markerFragmentGroupID = group->objectID();
      } else {
        printLine(
            "Error when creating a marker fragment. The marker fragment group could not be set. Reason: " +
            made.error().localizedDescription());
      }
    });
  }
  groupID_ = std::move(markerFragmentGroupID);
}

CodingClass MarkerFragment::codingClass(std::shared_ptr<StoreEnvironment> application) {
  return CodingClass{{std::string(kMarkerFragmentClassName), "NSObject"}, [application] {
                       return ObjectPtr(std::shared_ptr<MarkerFragment>(
                           new MarkerFragment(Blank{}, decodingEnvironment(application))));
                     }};
}

std::vector<std::string> MarkerFragment::classChain() const {
  return {std::string(kMarkerFragmentClassName), "NSObject"};
}

Value MarkerFragment::valueForKey(std::string_view key) const {
  if (key == kId) return Value(id_);
  if (key == kMzValue) return Value(mzValue_);
  if (key == "correlationBasedTimesInChromatograms") return Value(correlationBasedTimes_);
  if (key == "markerFragmentGroupID") return valueWithObjectID(groupID_);
  return Object::valueForKey(key);
}

void MarkerFragment::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeEncodable(id_, kId);
  coder.encodeDouble(mzValue_, kMzValue);
  std::vector<std::string> uriStrings;
  std::vector<std::vector<double>> times;
  uriStrings.reserve(correlationBasedTimes_.size());
  times.reserve(correlationBasedTimes_.size());
  for (const Value& entry : correlationBasedTimes_) {
    const Value& uri = entry[kChromatogramURIStringKey];
    uriStrings.push_back(uri.isString() ? uri.asString() : std::string());
    times.push_back(timesOfEntry(entry));
  }
  coder.encodeEncodable(uriStrings, kURIStrings);
  coder.encodeEncodable(times, kTimes);
  // A group ID made without an entity has no URI to write.
  if (isEmptyObjectID(groupID_)) {
    printLine("An error occurred while encoding a MarkerFragment");
    return;
  }
  coder.encodeEncodable(groupID_.URIRepresentation(), kGroupURI);
}

Status MarkerFragment::initWithCoder(KeyedUnarchiver& coder) {
  context_ = WeakContext();
  correlationBasedTimes_.clear();
  const PersistentStoreCoordinator* coordinator = decodingPersistentStoreCoordinator(application_);
  if (coordinator == nullptr)
    return fail(corruptArchiveError("a marker fragment without a store coordinator"));

  auto id = coder.decodeDecodableUuid(kId);
  id_ = id ? *id : Uuid::random();
  mzValue_ = coder.decodeDoubleForKey(kMzValue);
  auto uriStrings = coder.decodeDecodableStrings(kURIStrings);
  auto times = coder.decodeDecodableDoubleArrays(kTimes);
  if (uriStrings && times && uriStrings->size() == times->size()) {
    for (std::size_t i = 0; i < uriStrings->size(); ++i) {
      Array numbers;
      numbers.reserve((*times)[i].size());
      for (double time : (*times)[i]) numbers.emplace_back(time);
      correlationBasedTimes_.push_back(Value(Dictionary{
          {std::string(kChromatogramURIStringKey), Value((*uriStrings)[i])},
          {std::string(kCorrelationBasedTimesKey), Value(std::move(numbers))},
      }));
    }
  }
  auto uri = coder.decodeDecodableUrl(kGroupURI);
  if (const auto& error = coder.error()) return fail(*error);
  if (!uri) return fail(corruptArchiveError("a marker fragment without its group"));
  auto groupID = objectIDForURI(coordinator, *uri);
  if (!groupID) return fail(corruptArchiveError("a marker fragment whose group is not in the store"));
  groupID_ = *groupID;
  return {};
}

std::shared_ptr<MarkerFragment> MarkerFragment::exactCopy() const {
  auto copy =
      std::make_shared<MarkerFragment>(mzValue_, managedObjectContext().get(), id_, groupID_, application_);
  copy->correlationBasedTimes_ = correlationBasedTimes_;
  return copy;
}

void MarkerFragment::setMzValue(double mzValue) {
  mzValue_ = mzValue;
  refreshMarkerFragmentGroup();
}

ContextHandle MarkerFragment::managedObjectContext() const {
  if (ContextHandle context = context_.lock()) return context;
  if (ContextHandle context = delegateManagedObjectContext(application_)) return context;
  fatalError(
      "A marker fragment has no managed object context: none was set and the application delegate has none.");
}

std::shared_ptr<MarkerFragmentGroup> MarkerFragment::markerFragmentGroup() const {
  const ContextHandle context = managedObjectContext();
  if (isEmptyObjectID(groupID_)) return nullptr;
  return existingObjectOfClass<MarkerFragmentGroup>(
      *context, groupID_,
      "Internal error. The marker fragment group of a marker fragment could not be retrieved.");
}

void MarkerFragment::setMarkerFragmentGroup(const std::shared_ptr<MarkerFragmentGroup>& group) {
  if (!group) return;
  if (group->objectID().isTemporaryID()) {
    obtainPermanentID(
        *managedObjectContext(), group,
        "Failure to incorporate a marker fragment into its fragment group. The fragment group could "
        "not be realised in the store.");
  }
  groupID_ = group->objectID();
}

void MarkerFragment::refreshMarkerFragmentGroup() {
  auto group = markerFragmentGroup();
  if (!group) return;
  auto fragments = group->markerFragments();
  if (!fragments || fragments->empty()) return;
  // Whichever element comes first is replaced, not necessarily this one: what matters is that the
  // group's attribute receives a new set, so that the group re-archives all its fragments.
  const Value first = *fragments->begin();
  fragments->erase(first);
  if (auto fragment = first.asObjectOf<MarkerFragment>()) fragments->insert(Value(fragment->exactCopy()));
  group->setMarkerFragments(std::move(fragments));
}

}  // namespace tesselune
