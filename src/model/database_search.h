// The protein database search entities: DatabaseSearchResult (one search), DatabaseSearchJoin (a
// group of searches), the peptide and protein identifications they hold (PeptideID, ProteinID
// and their joined variants), and the reference objects Peptide, Protein and ProteinGroup.
//
// Objects belong to their context and are used on its thread. The parser state of the
// identifications serves the main application's reader of search-engine result files; this
// program only carries it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/predicate.h"
#include "model/store_object.h"
#include "objectstore/fetch_request.h"

namespace tesselune {

class Chromatogram;
class ChromatogramGroup;
class DataCollection;
class DatabaseSearchJoin;
class FragmentSpectrum;
class IonVolumeGroup;
class Peptide;
class PeptideID;
class ProteinID;

class DatabaseSearchResult : public StoreObject {
 public:
  static FetchRequest fetchRequest() {
    return FetchRequest::fetchRequestWithEntityName("DatabaseSearchResult");
  }

  // Stored properties (see StoreObject's typed access for absent values); to-many members change
  // through addObject and removeObject.
  bool destinedForDeletion() const { return valueForKey("destinedForDeletion").boolValue(); }
  void setDestinedForDeletion(bool destined) { setValue(Value(destined), "destinedForDeletion"); }
  std::optional<Uuid> idTag() const { return uuidForKey("idTag"); }
  void setIdTag(std::optional<Uuid> tag) { setOptionalValue(tag, "idTag"); }
  std::optional<std::int64_t> numberOfPeptides() const { return integerForKey("numberOfPeptides"); }
  void setNumberOfPeptides(std::optional<std::int64_t> count) { setOptionalValue(count, "numberOfPeptides"); }
  std::optional<std::int64_t> numberOfProteins() const { return integerForKey("numberOfProteins"); }
  void setNumberOfProteins(std::optional<std::int64_t> count) { setOptionalValue(count, "numberOfProteins"); }
  std::optional<std::string> rawFileName() const { return stringForKey("rawFileName"); }
  void setRawFileName(std::optional<std::string> name) { setOptionalValue(name, "rawFileName"); }
  std::optional<std::string> resultURLString() const { return stringForKey("resultURLString"); }
  void setResultURLString(std::optional<std::string> url) { setOptionalValue(url, "resultURLString"); }
  std::optional<std::string> typeOfSearchEngine() const { return stringForKey("typeOfSearchEngine"); }
  void setTypeOfSearchEngine(std::optional<std::string> engine) {
    setOptionalValue(engine, "typeOfSearchEngine");
  }
  std::shared_ptr<Chromatogram> chromatogram() const;
  void setChromatogram(const std::shared_ptr<Chromatogram>& chromatogram);
  std::shared_ptr<ChromatogramGroup> chromatogramGroup() const;
  void setChromatogramGroup(const std::shared_ptr<ChromatogramGroup>& group);
  std::vector<std::shared_ptr<DatabaseSearchJoin>> databaseSearchJoins() const;
  std::vector<std::shared_ptr<DataCollection>> dataCollections() const;
  std::vector<std::shared_ptr<IonVolumeGroup>> ionVolumeGroups() const;
  std::vector<std::shared_ptr<PeptideID>> peptideID() const;
  std::vector<std::shared_ptr<ProteinID>> proteinID() const;

  // The name; "" when there is none.
  std::string databaseSearchResultName() const;
  // Sets the name only when it differs from the current one, so an equal name posts nothing.
  void setDatabaseSearchResultName(const std::string& name);
  // The stored name without notifications (null when there is none).
  Value primitiveDatabaseSearchResultName() const { return primitiveValueForKey("databaseSearchResultName"); }
  void setPrimitiveDatabaseSearchResultName(Value name) {
    setPrimitiveValue(std::move(name), "databaseSearchResultName");
  }

  Value valueForKey(std::string_view key) const override;
  void setValueForKey(Value value, std::string_view key) override;

  // Tells the reporter what goes, then cleans out the cascade relationships except peptideID:
  // the peptide identifications are left to the batch delete of the search itself.
  std::vector<ManagedObjectID> willBeDeleted(ProgressReporter* reporter,
                                             const DeletionSupport& support) override;
  std::vector<ManagedObjectID> batchDeleteCascadingRelationshipObjects(
      ProgressReporter* reporter, const DeletionSupport& support) override;

  const std::string& valueString() const { return valueString_; }
  void setValueString(std::string text) { valueString_ = std::move(text); }
  bool readCharacters() const { return readCharacters_; }
  void setReadCharacters(bool read) { readCharacters_ = read; }
  const Array& sortedProteins() const { return sortedProteins_; }
  void setSortedProteins(Array proteins) { sortedProteins_ = std::move(proteins); }
  const Array& sortedPeptides() const { return sortedPeptides_; }
  void setSortedPeptides(Array peptides) { sortedPeptides_ = std::move(peptides); }

 private:
  std::string valueString_;
  bool readCharacters_ = false;
  Array sortedProteins_;
  Array sortedPeptides_;
};

class DatabaseSearchJoin : public StoreObject {
 public:
  // As DatabaseSearchResult's, leaving out peptideIDsJoined.
  std::vector<ManagedObjectID> willBeDeleted(ProgressReporter* reporter,
                                             const DeletionSupport& support) override;
  std::vector<ManagedObjectID> batchDeleteCascadingRelationshipObjects(
      ProgressReporter* reporter, const DeletionSupport& support) override;

  const Array& sortedProteins() const { return sortedProteins_; }
  void setSortedProteins(Array proteins) { sortedProteins_ = std::move(proteins); }
  const Array& sortedPeptides() const { return sortedPeptides_; }
  void setSortedPeptides(Array peptides) { sortedPeptides_ = std::move(peptides); }

 private:
  Array sortedProteins_;
  Array sortedPeptides_;
};

// Parser state shared by peptide and protein identifications.
class IdentificationParserState {
 public:
  const std::vector<std::string>& xmlAttributeNames() const { return xmlAttributeNames_; }
  void setXmlAttributeNames(std::vector<std::string> names) { xmlAttributeNames_ = std::move(names); }
  bool readCharacters() const { return readCharacters_; }
  void setReadCharacters(bool read) { readCharacters_ = read; }
  // The text read so far; made empty on first use.
  std::string& valueString() { return valueString_; }
  void setValueString(std::string text) { valueString_ = std::move(text); }

 private:
  std::vector<std::string> xmlAttributeNames_;
  bool readCharacters_ = false;
  std::string valueString_;
};

class PeptideID : public StoreObject {
 public:
  static FetchRequest fetchRequest() { return FetchRequest::fetchRequestWithEntityName("PeptideID"); }

  // Stored properties (see StoreObject's typed access for absent values); to-many members change
  // through addObject and removeObject.
  std::optional<double> calculatedMass() const { return doubleForKey("calculatedMass"); }
  void setCalculatedMass(std::optional<double> mass) { setOptionalValue(mass, "calculatedMass"); }
  std::optional<std::int64_t> charge() const { return integerForKey("charge"); }
  void setCharge(std::optional<std::int64_t> charge) { setOptionalValue(charge, "charge"); }
  std::optional<double> deltaScore() const { return doubleForKey("deltaScore"); }
  void setDeltaScore(std::optional<double> score) { setOptionalValue(score, "deltaScore"); }
  std::optional<double> elutionTime() const { return doubleForKey("elutionTime"); }
  void setElutionTime(std::optional<double> time) { setOptionalValue(time, "elutionTime"); }
  std::optional<double> elutionTimeMeasured() const { return doubleForKey("elutionTimeMeasured"); }
  void setElutionTimeMeasured(std::optional<double> time) { setOptionalValue(time, "elutionTimeMeasured"); }
  std::optional<double> expectationValue() const { return doubleForKey("expectationValue"); }
  void setExpectationValue(std::optional<double> value) { setOptionalValue(value, "expectationValue"); }
  std::optional<double> homologyThreshold() const { return doubleForKey("homologyThreshold"); }
  void setHomologyThreshold(std::optional<double> threshold) {
    setOptionalValue(threshold, "homologyThreshold");
  }
  std::optional<double> identityThreshold() const { return doubleForKey("identityThreshold"); }
  void setIdentityThreshold(std::optional<double> threshold) {
    setOptionalValue(threshold, "identityThreshold");
  }
  std::optional<Bytes> ionData() const { return dataForKey("ionData"); }
  void setIonData(std::optional<Bytes> data) { setOptionalValue(data, "ionData"); }
  std::optional<double> mzMeasured() const { return doubleForKey("mzMeasured"); }
  void setMzMeasured(std::optional<double> mz) { setOptionalValue(mz, "mzMeasured"); }
  std::optional<double> mzValue() const { return doubleForKey("mzValue"); }
  void setMzValue(std::optional<double> mz) { setOptionalValue(mz, "mzValue"); }
  std::optional<std::int64_t> numberOfMatches() const { return integerForKey("numberOfMatches"); }
  void setNumberOfMatches(std::optional<std::int64_t> count) { setOptionalValue(count, "numberOfMatches"); }
  std::optional<std::int64_t> queryNumber() const { return integerForKey("queryNumber"); }
  void setQueryNumber(std::optional<std::int64_t> number) { setOptionalValue(number, "queryNumber"); }
  std::optional<std::int64_t> rank() const { return integerForKey("rank"); }
  void setRank(std::optional<std::int64_t> rank) { setOptionalValue(rank, "rank"); }
  std::optional<double> score() const { return doubleForKey("score"); }
  void setScore(std::optional<double> score) { setOptionalValue(score, "score"); }
  std::optional<std::string> sequence() const { return stringForKey("sequence"); }
  void setSequence(std::optional<std::string> sequence) { setOptionalValue(sequence, "sequence"); }
  std::optional<std::string> variableModification() const { return stringForKey("variableModification"); }
  void setVariableModification(std::optional<std::string> modification) {
    setOptionalValue(modification, "variableModification");
  }
  std::shared_ptr<DatabaseSearchResult> databaseSearchResult() const;
  void setDatabaseSearchResult(const std::shared_ptr<DatabaseSearchResult>& result);
  std::vector<std::shared_ptr<FragmentSpectrum>> fragmentSpectrum() const;
  std::vector<std::shared_ptr<ProteinID>> proteinID() const;
  std::shared_ptr<Peptide> referencePeptide() const;
  void setReferencePeptide(const std::shared_ptr<Peptide>& peptide);

  // The deviation of the measured from the calculated mass, in single precision, computed once
  // and cached in the transient attribute massDeviation: z = charge, m = the value of the key
  // "mz", c = calculatedMass; (m - 1) * z - c when z > 0, else (m + 1) * z + c.
  float massDeviation() const;
  void setMassDeviation(std::optional<float> deviation);

  // chromatogram == $chromatogram AND referenceObjectID == $referenceObjectID, cached until the
  // object turns into a fault. A copy: a later fault replaces the cache, never what was handed out.
  Predicate ionVolumeSearchPredicate() const;

  // Parser state, each read announced to observers of its own key.
  bool readCharacters() const;
  void setReadCharacters(bool read) { parser_.setReadCharacters(read); }
  std::vector<std::string> xmlAttributeNames() const;
  void setXmlAttributeNames(std::vector<std::string> names) {
    parser_.setXmlAttributeNames(std::move(names));
  }
  std::string& valueString();
  void setValueString(std::string text) { parser_.setValueString(std::move(text)); }
  const Dictionary& query() const { return query_; }
  void setQuery(Dictionary query) { query_ = std::move(query); }

  Value valueForKey(std::string_view key) const override;
  void setValueForKey(Value value, std::string_view key) override;

 private:
  IdentificationParserState parser_;
  Dictionary query_;
  mutable std::optional<Predicate> ionVolumeSearchPredicate_;
};

class PeptideIDJoined : public PeptideID {};

class ProteinID : public StoreObject {
 public:
  IdentificationParserState& parserState() { return parser_; }
  const IdentificationParserState& parserState() const { return parser_; }

 private:
  IdentificationParserState parser_;
};

class ProteinIDJoined : public ProteinID {};

class Peptide : public StoreObject {
 public:
  bool requiresFormatting() const { return requiresFormatting_; }
  void setRequiresFormatting(bool required) { requiresFormatting_ = required; }
  // The main application's colour for the mass text.
  const ObjectPtr& massTextColor() const { return massTextColor_; }
  void setMassTextColor(ObjectPtr color) { massTextColor_ = std::move(color); }
  const std::optional<Predicate>& ionVolumeSearchPredicate() const { return ionVolumeSearchPredicate_; }
  void setIonVolumeSearchPredicate(std::optional<Predicate> predicate) {
    ionVolumeSearchPredicate_ = std::move(predicate);
  }

 private:
  bool requiresFormatting_ = false;
  ObjectPtr massTextColor_;
  std::optional<Predicate> ionVolumeSearchPredicate_;
};

class Protein : public StoreObject {};

class ProteinGroup : public StoreObject {
 public:
  bool requiresMembersCount() const { return requiresMembersCount_; }
  void setRequiresMembersCount(bool required) { requiresMembersCount_ = required; }

 private:
  bool requiresMembersCount_ = false;
};

}  // namespace tesselune
