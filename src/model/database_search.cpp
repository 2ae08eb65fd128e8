// Database searches and identifications: the search's name accessors and the peptide
// identification's mass deviation, ion-volume search predicate and parser state; the deletion hooks
// of searches and search groups.

#include "model/database_search.h"

#include "model/chromatogram.h"
#include "model/data_collection.h"
#include "model/ion_group.h"
#include "model/spectrum.h"

namespace tesselune {

namespace {
constexpr std::string_view kName = "databaseSearchResultName";
constexpr std::string_view kMassDeviation = "massDeviation";
}  // namespace

std::shared_ptr<Chromatogram> DatabaseSearchResult::chromatogram() const {
  return toOne<Chromatogram>("chromatogram");
}
void DatabaseSearchResult::setChromatogram(const std::shared_ptr<Chromatogram>& chromatogram) {
  setToOne(chromatogram, "chromatogram");
}
std::shared_ptr<ChromatogramGroup> DatabaseSearchResult::chromatogramGroup() const {
  return toOne<ChromatogramGroup>("chromatogramGroup");
}
void DatabaseSearchResult::setChromatogramGroup(const std::shared_ptr<ChromatogramGroup>& group) {
  setToOne(group, "chromatogramGroup");
}
std::vector<std::shared_ptr<DatabaseSearchJoin>> DatabaseSearchResult::databaseSearchJoins() const {
  return toMany<DatabaseSearchJoin>("databaseSearchJoins");
}
std::vector<std::shared_ptr<DataCollection>> DatabaseSearchResult::dataCollections() const {
  return toMany<DataCollection>("dataCollections");
}
std::vector<std::shared_ptr<IonVolumeGroup>> DatabaseSearchResult::ionVolumeGroups() const {
  return toMany<IonVolumeGroup>("ionVolumeGroups");
}
std::vector<std::shared_ptr<PeptideID>> DatabaseSearchResult::peptideID() const {
  return toMany<PeptideID>("peptideID");
}
std::vector<std::shared_ptr<ProteinID>> DatabaseSearchResult::proteinID() const {
  return toMany<ProteinID>("proteinID");
}

std::string DatabaseSearchResult::databaseSearchResultName() const {
  willAccessValueForKey(kName);
  const Value name = primitiveDatabaseSearchResultName();
  didAccessValueForKey(kName);
  return name.isString() ? name.asString() : std::string();
}

void DatabaseSearchResult::setDatabaseSearchResultName(const std::string& name) {
  const Value current = primitiveDatabaseSearchResultName();
  if (current.isString() && current.asString() == name) return;
  willChangeValueForKey(kName);
  setPrimitiveDatabaseSearchResultName(Value(name));
  didChangeValueForKey(kName);
}

Value DatabaseSearchResult::valueForKey(std::string_view key) const {
  if (key == kName) return Value(databaseSearchResultName());
  return StoreObject::valueForKey(key);
}

void DatabaseSearchResult::setValueForKey(Value value, std::string_view key) {
  if (key == kName && value.isString()) {
    setDatabaseSearchResultName(value.asString());
    return;
  }
  StoreObject::setValueForKey(std::move(value), key);
}

std::shared_ptr<DatabaseSearchResult> PeptideID::databaseSearchResult() const {
  return toOne<DatabaseSearchResult>("databaseSearchResult");
}
void PeptideID::setDatabaseSearchResult(const std::shared_ptr<DatabaseSearchResult>& result) {
  setToOne(result, "databaseSearchResult");
}
std::vector<std::shared_ptr<FragmentSpectrum>> PeptideID::fragmentSpectrum() const {
  return toMany<FragmentSpectrum>("fragmentSpectrum");
}
std::vector<std::shared_ptr<ProteinID>> PeptideID::proteinID() const {
  return toMany<ProteinID>("proteinID");
}
std::shared_ptr<Peptide> PeptideID::referencePeptide() const {
  return toOne<Peptide>("referencePeptide");
}
void PeptideID::setReferencePeptide(const std::shared_ptr<Peptide>& peptide) {
  setToOne(peptide, "referencePeptide");
}

float PeptideID::massDeviation() const {
  const Value cached = primitiveValueForKey(kMassDeviation);
  if (cached.isNumber()) return static_cast<float>(cached.doubleValue());
  const auto z = static_cast<long>(valueForKey("charge").integerValue());
  // The key is "mz", not "mzValue": the main application computes it so, and so must we.
  const auto m = static_cast<float>(valueForKey("mz").doubleValue());
  const auto c = static_cast<float>(valueForKey("calculatedMass").doubleValue());
  const auto charge = static_cast<float>(z);
  const float deviation = z > 0 ? (m - 1.0f) * charge - c : (m + 1.0f) * charge + c;
  const_cast<PeptideID*>(this)->setMassDeviation(deviation);  // see StoreObject::mutableSelf
  return deviation;
}

void PeptideID::setMassDeviation(std::optional<float> deviation) {
  setValue(deviation ? Value(static_cast<double>(*deviation)) : Value(), kMassDeviation);
}

Predicate PeptideID::ionVolumeSearchPredicate() const {
  if (ionVolumeSearchPredicate_ && !isFault()) return *ionVolumeSearchPredicate_;
  ionVolumeSearchPredicate_ = Predicate::andPredicate({
      Predicate::comparison(Expression::keyPath("chromatogram"), ComparisonOperator::EqualTo,
                            Expression::variable("chromatogram")),
      Predicate::comparison(Expression::keyPath("referenceObjectID"), ComparisonOperator::EqualTo,
                            Expression::variable("referenceObjectID")),
  });
  return *ionVolumeSearchPredicate_;
}

bool PeptideID::readCharacters() const {
  willAccessValueForKey("readCharacters");
  const bool read = parser_.readCharacters();
  didAccessValueForKey("readCharacters");
  return read;
}

std::vector<std::string> PeptideID::xmlAttributeNames() const {
  willAccessValueForKey("xmlAttributeNames");
  auto names = parser_.xmlAttributeNames();
  didAccessValueForKey("xmlAttributeNames");
  return names;
}

std::string& PeptideID::valueString() {
  willAccessValueForKey("valueString");
  std::string& text = parser_.valueString();
  didAccessValueForKey("valueString");
  return text;
}

Value PeptideID::valueForKey(std::string_view key) const {
  if (key == kMassDeviation) return Value(static_cast<double>(massDeviation()));
  return StoreObject::valueForKey(key);
}

void PeptideID::setValueForKey(Value value, std::string_view key) {
  if (key == kMassDeviation) {
    setMassDeviation(value.isNumber() ? std::optional<float>(static_cast<float>(value.doubleValue()))
                                      : std::nullopt);
    return;
  }
  StoreObject::setValueForKey(std::move(value), key);
}

std::vector<ManagedObjectID> DatabaseSearchResult::willBeDeleted(ProgressReporter* reporter,
                                                                 const DeletionSupport& support) {
  if (reporter != nullptr) reporter->setInfoText("Deleting a database search");
  return batchDeleteCascadingRelationshipObjects(reporter, support);
}

std::vector<ManagedObjectID> DatabaseSearchResult::batchDeleteCascadingRelationshipObjects(
    ProgressReporter* reporter, const DeletionSupport& support) {
  return cleanOutCascadingRelationships(reporter, support, "peptideID", printingCascadeFailures(support));
}

std::vector<ManagedObjectID> DatabaseSearchJoin::willBeDeleted(ProgressReporter* reporter,
                                                               const DeletionSupport& support) {
  if (reporter != nullptr) reporter->setInfoText("Deleting a database group");
  return batchDeleteCascadingRelationshipObjects(reporter, support);
}

std::vector<ManagedObjectID> DatabaseSearchJoin::batchDeleteCascadingRelationshipObjects(
    ProgressReporter* reporter, const DeletionSupport& support) {
  return cleanOutCascadingRelationships(reporter, support, "peptideIDsJoined",
                                        printingCascadeFailures(support));
}

}  // namespace tesselune
