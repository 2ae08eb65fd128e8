// Building the demonstration store.
#include "app/demo_store.h"

#include <fmt/format.h>

#include <fstream>
#include <map>
#include <system_error>
#include <utility>
#include <vector>

#include "app/store_maintenance.h"
#include "foundation/uuid.h"

namespace tesselune {

namespace {

using Properties = std::vector<std::pair<std::string_view, Value>>;

// Writes objects as rows, one prepared statement per entity and property list, keys reserved from
// the store's counters in blocks (keys left over are never reused, as with the main application).
class RowWriter {
 public:
  explicit RowWriter(SqliteStore& store) : store_(store) {}

  [[nodiscard]] Expected<std::int64_t> insert(std::string_view entityName, const Properties& properties) {
    auto inserter = inserterFor(entityName, properties);
    if (!inserter) return fail(inserter.error());
    Inserter& in = **inserter;
    auto key = nextKey(*in.entity);
    if (!key) return fail(key.error());
    Statement& statement = in.statement;
    int index = 1;
    Status bound = statement.bind(index++, Value(*key));
    if (bound) bound = statement.bind(index++, Value(in.number));
    for (std::size_t i = 0; bound && i < properties.size(); ++i) {
      bound = statement.bind(index++, properties[i].second);
      if (bound && in.entityNumbers[i]) {
        bound =
            statement.bind(index++, properties[i].second.isNull() ? Value() : Value(*in.entityNumbers[i]));
      }
    }
    if (!bound) return fail(bound.error());
    if (auto ran = statement.run(); !ran) return fail(ran.error());
    if (auto reset = statement.reset(); !reset) return fail(reset.error());
    ++written_;
    return *key;
  }

  // Adds the pair to a many-to-many relationship of `entityName` (its inverse follows by itself).
  [[nodiscard]] Status link(std::string_view entityName, std::string_view relationshipName, std::int64_t key,
                            std::int64_t otherKey) {
    const std::string cacheKey = fmt::format("{}.{}", entityName, relationshipName);
    auto found = links_.find(cacheKey);
    if (found == links_.end()) {
      const EntityDescription* entity = store_.model().entityNamed(entityName);
      const RelationshipDescription* relationship = nullptr;
      if (entity != nullptr) {
        auto r = entity->relationshipsByName().find(relationshipName);
        if (r != entity->relationshipsByName().end()) relationship = r->second;
      }
      const PropertyMapping* mapping = relationship ? store_.schema().mapping(*relationship) : nullptr;
      if (mapping == nullptr || mapping->kind != PropertyMapping::Kind::ManyToMany) {
        return fail(maintenanceError(fmt::format("The model has no many-to-many {}.", cacheKey)));
      }
      auto statement =
          store_.database().prepare(fmt::format("INSERT OR IGNORE INTO {} ({}, {}) VALUES (?, ?)",
                                                mapping->table, mapping->column, mapping->otherColumn));
      if (!statement) return fail(statement.error());
      found = links_.emplace(cacheKey, std::move(*statement)).first;
    }
    Statement& statement = found->second;
    if (auto b = statement.bind(1, Value(key)); !b) return b;
    if (auto b = statement.bind(2, Value(otherKey)); !b) return b;
    if (auto ran = statement.run(); !ran) return ran;
    return statement.reset();
  }

  std::int64_t written() const { return written_; }

 private:
  struct Inserter {
    const EntityDescription* entity = nullptr;
    std::int64_t number = 0;
    Statement statement;
    // Per property: the destination's entity number when a to-one keeps one beside its key.
    std::vector<std::optional<std::int64_t>> entityNumbers;
  };
  struct KeyBlock {
    std::int64_t next = 0;
    std::int64_t end = 0;
  };
  static constexpr std::int64_t kKeyBlock = 4096;

  Expected<Inserter*> inserterFor(std::string_view entityName, const Properties& properties) {
    std::string cacheKey(entityName);
    for (const auto& [name, value] : properties) cacheKey += fmt::format(",{}", name);
    if (auto found = inserters_.find(cacheKey); found != inserters_.end()) return &found->second;

    const EntityDescription* entity = store_.model().entityNamed(entityName);
    auto number = entity ? store_.entityNumber(*entity) : std::nullopt;
    if (!number) return fail(maintenanceError(fmt::format("The model has no entity {}.", entityName)));
    Inserter in;
    in.entity = entity;
    in.number = *number;
    std::vector<std::string> columns = {"Z_PK", "Z_ENT", "Z_OPT"};
    std::vector<std::string> values = {"?", "?", "1"};
    for (const auto& [name, value] : properties) {
      auto property = entity->propertiesByName().find(name);
      const PropertyMapping* mapping =
          property == entity->propertiesByName().end() ? nullptr : store_.schema().mapping(*property->second);
      const bool stored = mapping != nullptr && (mapping->kind == PropertyMapping::Kind::Attribute ||
                                                 mapping->kind == PropertyMapping::Kind::ToOne);
      if (!stored) return fail(maintenanceError(fmt::format("{} has no column for {}.", entityName, name)));
      columns.push_back(mapping->column);
      values.push_back("?");
      std::optional<std::int64_t> destinationNumber;
      if (!mapping->entityColumn.empty()) {
        const auto* relationship = static_cast<const RelationshipDescription*>(property->second);
        destinationNumber = store_.entityNumber(*relationship->destinationEntity());
        columns.push_back(mapping->entityColumn);
        values.push_back("?");
      }
      in.entityNumbers.push_back(destinationNumber);
    }
    auto statement = store_.database().prepare(
        fmt::format("INSERT INTO {} ({}) VALUES ({})", SqliteStore::tableName(*entity),
                    fmt::join(columns, ", "), fmt::join(values, ", ")));
    if (!statement) return fail(statement.error());
    in.statement = std::move(*statement);
    return &inserters_.emplace(cacheKey, std::move(in)).first->second;
  }

  Expected<std::int64_t> nextKey(const EntityDescription& entity) {
    KeyBlock& block = keys_[entity.rootEntity()];
    if (block.next == block.end) {
      auto first = store_.allocatePrimaryKeys(entity, kKeyBlock);
      if (!first) return fail(first.error());
      block = {*first, *first + kKeyBlock};
    }
    return block.next++;
  }

  SqliteStore& store_;
  std::map<std::string, Inserter> inserters_;
  std::map<std::string, Statement> links_;
  std::map<const EntityDescription*, KeyBlock> keys_;
  std::int64_t written_ = 0;
};

// One batch of rows in one transaction: all of it is in the store afterwards, or none.
template <class Work>
Status batch(Database& database, Work&& work) {
  if (auto begun = database.execute("BEGIN IMMEDIATE"); !begun) return begun;
  Status result = work();
  if (!result) {
    (void)database.execute("ROLLBACK");
    return result;
  }
  return database.execute("COMMIT");
}

// Peak data of `points` m/z and intensity pairs, as doubles; the values only need to look real.
Bytes peakData(int points, std::int64_t seed) {
  Bytes bytes(static_cast<std::size_t>(points) * 16);
  std::uint64_t state = static_cast<std::uint64_t>(seed) * 6364136223846793005ULL + 1442695040888963407ULL;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    bytes[i] = static_cast<std::uint8_t>(state >> 56);
  }
  return bytes;
}

Status writeDataFolder(const std::filesystem::path& folder, const DemoOptions& options, int chromatogram) {
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  if (ec) {
    return fail(
        maintenanceError(fmt::format("The folder {} cannot be made: {}.", folder.string(), ec.message())));
  }
  const std::string block = std::string(1024, static_cast<char>('a' + chromatogram % 26));
  for (int f = 0; f < options.filesPerDataFolder; ++f) {
    const auto file = folder / fmt::format("scan_{:03}.raw", f + 1);
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    for (int k = 0; out && k < options.kilobytesPerFile; ++k) out.write(block.data(), std::ssize(block));
    out.close();
    if (!out) return fail(maintenanceError(fmt::format("The file {} cannot be written.", file.string())));
  }
  return {};
}

}  // namespace

Status validateDemoOptions(const DemoOptions& o) {
  const std::pair<const char*, int> counts[] = {
      {"chromatograms", o.chromatograms},
      {"spectra", o.spectraPerChromatogram},
      {"fragment spectra", o.fragmentSpectraPerChromatogram},
      {"searches", o.searches},
      {"peptides", o.peptidesPerSearch},
      {"proteins", o.proteinsPerSearch},
      {"search groups", o.searchGroups},
      {"data collections", o.dataCollections},
      {"marked chromatograms", o.markedChromatograms},
      {"marked searches", o.markedSearches},
      {"marked search groups", o.markedSearchGroups},
      {"marked data collections", o.markedDataCollections},
      {"files per data folder", o.filesPerDataFolder},
      {"kilobytes per file", o.kilobytesPerFile},
  };
  for (const auto& [what, count] : counts) {
    if (count < 0) return fail(maintenanceError(fmt::format("The number of {} cannot be negative.", what)));
  }
  if (o.searches > o.chromatograms) {
    return fail(
        maintenanceError("Each search belongs to a chromatogram of its own: at most as many searches "
                         "as chromatograms."));
  }
  const std::tuple<const char*, int, int> marks[] = {
      {"chromatograms", o.markedChromatograms, o.chromatograms},
      {"searches", o.markedSearches, o.searches},
      {"search groups", o.markedSearchGroups, o.searchGroups},
      {"data collections", o.markedDataCollections, o.dataCollections},
  };
  for (const auto& [what, marked, made] : marks) {
    if (marked > made) {
      return fail(maintenanceError(fmt::format("Cannot mark {} {}: only {} are made.", marked, what, made)));
    }
  }
  return {};
}

Expected<DemoSummary> buildDemoStore(const DataLibrary& library, const DemoOptions& o,
                                     ProgressReporter* progress) {
  if (auto valid = validateDemoOptions(o); !valid) return fail(valid.error());
  auto created = createStore(library);
  if (!created) return fail(created.error());
  SqliteStore& store = *created->store;
  Database& database = store.database();
  RowWriter rows(store);
  DemoSummary summary;

  const std::int64_t perChromatogram =
      1 + std::int64_t{o.spectraPerChromatogram} + o.fragmentSpectraPerChromatogram + 11;
  const std::int64_t total = perChromatogram * o.chromatograms +
                             std::int64_t{o.searches} * (2 + o.peptidesPerSearch + o.proteinsPerSearch) +
                             std::int64_t{o.searchGroups} * (2 + o.peptidesPerSearch + o.proteinsPerSearch) +
                             o.dataCollections;
  std::int64_t shown = 0;
  auto report = [&](const std::string& text) {
    if (progress == nullptr) return;
    progress->setInfoText(text);
    progress->incrementProgressbarBy(static_cast<double>(rows.written() - shown));
    shown = rows.written();
  };
  if (progress != nullptr) {
    progress->setMaximumIndicatorValue(static_cast<double>(total));
    progress->setIndicatorValue(0);
  }
  // Reports every so many rows within a batch, so the bar moves during a large chromatogram.
  auto tick = [&](const std::string& text) {
    if (rows.written() - shown >= 2000) report(text);
  };

  std::vector<std::int64_t> chromatograms;
  std::vector<std::vector<std::int64_t>> fragmentSpectra;
  for (int c = 0; c < o.chromatograms; ++c) {
    const std::string name = fmt::format("Chromatogram {}", c + 1);
    const std::string folderName = fmt::format("Chromatogram {}.data", c + 1);
    const bool marked = c >= o.chromatograms - o.markedChromatograms;
    std::vector<std::int64_t> fragments;
    Status written = batch(database, [&]() -> Status {
      auto chromatogram =
          rows.insert("Chromatogram", {{"chromatogramName", Value(name)},
                                       {"dataFolderRelativePath", Value(folderName)},
                                       {"destinedForDeletion", Value(marked)},
                                       {"idTag", Value(Uuid::random())},
                                       {"rawFileName", Value(fmt::format("run_{:03}.raw", c + 1))},
                                       {"numberOfSpectra", Value(o.spectraPerChromatogram)},
                                       {"numberOfFragmentSpectra", Value(o.fragmentSpectraPerChromatogram)},
                                       {"duration", Value(120.0)},
                                       {"deltaTimeMin", Value(0.02)},
                                       {"time", Value(static_cast<double>(c))}});
      if (!chromatogram) return fail(chromatogram.error());
      const std::int64_t key = *chromatogram;
      chromatograms.push_back(key);
      for (int s = 0; s < o.spectraPerChromatogram; ++s) {
        auto spectrum = rows.insert("Spectrum", {{"chromatogramNative", Value(key)},
                                                 {"spectrumIndex", Value(s)},
                                                 {"msLevel", Value(1)},
                                                 {"retentionTime", Value(s * 0.02)},
                                                 {"numberOfPoints", Value(16)},
                                                 {"basePeakMz", Value(400.0 + s % 800)},
                                                 {"basePeakIntensity", Value(1.0e6 + s)},
                                                 {"totalIonCurrent", Value(5.0e7 + s)},
                                                 {"peakData", Value(peakData(16, s))}});
        if (!spectrum) return fail(spectrum.error());
        tick(name);
      }
      auto selection = rows.insert("PrecursorSelection", {{"chromatogram", Value(key)},
                                                          {"precursorMz", Value(652.3)},
                                                          {"mzTolerance", Value(0.01)},
                                                          {"timeStart", Value(10.0)},
                                                          {"timeEnd", Value(90.0)}});
      if (!selection) return fail(selection.error());
      auto secondSelection = rows.insert(
          "PrecursorSelection",
          {{"chromatogram", Value(key)}, {"precursorMz", Value(812.4)}, {"mzTolerance", Value(0.01)}});
      if (!secondSelection) return fail(secondSelection.error());
      for (int f = 0; f < o.fragmentSpectraPerChromatogram; ++f) {
        auto fragment = rows.insert("FragmentSpectrum", {{"precursorChromatogram", Value(key)},
                                                         {"precursorSelection", Value(*selection)},
                                                         {"spectrumIndex", Value(f)},
                                                         {"msLevel", Value(2)},
                                                         {"retentionTime", Value(f * 0.2)},
                                                         {"precursorMz", Value(300.0 + f % 1200)},
                                                         {"precursorCharge", Value(2 + f % 3)},
                                                         {"numberOfPoints", Value(8)},
                                                         {"peakData", Value(peakData(8, f))}});
        if (!fragment) return fail(fragment.error());
        fragments.push_back(*fragment);
        tick(name);
      }
      for (int g = 0; g < 2; ++g) {
        auto group = rows.insert("IonGroup", {{"chromatogram", Value(key)},
                                              {"ionGroupName", Value(fmt::format("Ions {}", g + 1))},
                                              {"numberOfIons", Value(0)}});
        if (!group) return fail(group.error());
      }
      const std::pair<std::string_view, Properties> dependants[] = {
          {"IonVolumeGroup", {{"chromatogram", Value(key)}, {"ionVolumeGroupName", Value("Ion volumes")}}},
          {"ChromatogramMap", {{"chromatogram", Value(key)}, {"mapName", Value("Map")}}},
          {"ChromatogramNormalization",
           {{"chromatogram", Value(key)}, {"normalizationName", Value("Normalisation")}}},
      };
      for (const auto& [entity, properties] : dependants) {
        if (auto made = rows.insert(entity, properties); !made) return fail(made.error());
      }
      auto listGroup =
          rows.insert("PrecursorListGroup", {{"chromatogram", Value(key)}, {"name", Value("Precursors")}});
      if (!listGroup) return fail(listGroup.error());
      for (int l = 0; l < 2; ++l) {
        auto list = rows.insert("PrecursorList", {{"precursorListGroup", Value(*listGroup)},
                                                  {"listName", Value(fmt::format("List {}", l + 1))}});
        if (!list) return fail(list.error());
      }
      return {};
    });
    if (!written) return fail(written.error());
    fragmentSpectra.push_back(std::move(fragments));
    summary.marked += marked ? 1 : 0;
    if (auto folder = writeDataFolder(library.folder() / folderName, o, c); !folder)
      return fail(folder.error());
    ++summary.dataFolders;
    report(name);
  }

  std::vector<std::int64_t> searches;
  for (int s = 0; s < o.searches; ++s) {
    const std::string name = fmt::format("Search {}", s + 1);
    const bool marked = s >= o.searches - o.markedSearches;
    Status written = batch(database, [&]() -> Status {
      auto search = rows.insert("DatabaseSearchResult",
                                {{"databaseSearchResultName", Value(name)},
                                 {"chromatogram", Value(chromatograms[static_cast<std::size_t>(s)])},
                                 {"destinedForDeletion", Value(marked)},
                                 {"idTag", Value(Uuid::random())},
                                 {"numberOfPeptides", Value(o.peptidesPerSearch)},
                                 {"numberOfProteins", Value(o.proteinsPerSearch)},
                                 {"rawFileName", Value(fmt::format("run_{:03}.raw", s + 1))},
                                 {"typeOfSearchEngine", Value("Mascot")}});
      if (!search) return fail(search.error());
      searches.push_back(*search);
      std::vector<std::int64_t> proteins;
      for (int p = 0; p < o.proteinsPerSearch; ++p) {
        auto protein = rows.insert("ProteinID", {{"databaseSearchResult", Value(*search)},
                                                 {"accession", Value(fmt::format("P{:05}", p + 1))},
                                                 {"score", Value(50.0 + p % 40)}});
        if (!protein) return fail(protein.error());
        proteins.push_back(*protein);
      }
      const auto& fragments = fragmentSpectra[static_cast<std::size_t>(s)];
      for (int p = 0; p < o.peptidesPerSearch; ++p) {
        auto peptide = rows.insert("PeptideID", {{"databaseSearchResult", Value(*search)},
                                                 {"sequence", Value("PEPTIDEK")},
                                                 {"charge", Value(2 + p % 3)},
                                                 {"mzValue", Value(400.0 + p % 900)},
                                                 {"calculatedMass", Value(798.0 + p % 900)},
                                                 {"score", Value(30.0 + p % 50)},
                                                 {"queryNumber", Value(p + 1)},
                                                 {"rank", Value(1)}});
        if (!peptide) return fail(peptide.error());
        if (!proteins.empty()) {
          const std::int64_t protein = proteins[static_cast<std::size_t>(p) % proteins.size()];
          if (auto linked = rows.link("PeptideID", "proteinID", *peptide, protein); !linked) return linked;
        }
        if (!fragments.empty()) {
          const std::int64_t fragment = fragments[static_cast<std::size_t>(p) % fragments.size()];
          if (auto linked = rows.link("PeptideID", "fragmentSpectrum", *peptide, fragment); !linked)
            return linked;
        }
        tick(name);
      }
      auto volumes = rows.insert("IonVolumeGroup", {{"databaseSearchResult", Value(*search)},
                                                    {"ionVolumeGroupName", Value("Identified ion volumes")}});
      if (!volumes) return fail(volumes.error());
      return {};
    });
    if (!written) return fail(written.error());
    summary.marked += marked ? 1 : 0;
    report(name);
  }

  for (int g = 0; g < o.searchGroups; ++g) {
    const std::string name = fmt::format("Search group {}", g + 1);
    const bool marked = g >= o.searchGroups - o.markedSearchGroups;
    Status written = batch(database, [&]() -> Status {
      auto group = rows.insert("DatabaseSearchJoin", {{"databaseSearchJoinName", Value(name)},
                                                      {"destinedForDeletion", Value(marked)},
                                                      {"idTag", Value(Uuid::random())}});
      if (!group) return fail(group.error());
      for (std::int64_t search : searches) {
        if (auto linked = rows.link("DatabaseSearchJoin", "databaseSearchResults", *group, search); !linked) {
          return linked;
        }
      }
      for (int p = 0; p < o.proteinsPerSearch; ++p) {
        auto protein = rows.insert("ProteinIDJoined", {{"databaseSearchJoin", Value(*group)},
                                                       {"accession", Value(fmt::format("P{:05}", p + 1))}});
        if (!protein) return fail(protein.error());
      }
      for (int p = 0; p < o.peptidesPerSearch; ++p) {
        auto peptide = rows.insert("PeptideIDJoined", {{"databaseSearchJoin", Value(*group)},
                                                       {"sequence", Value("PEPTIDEK")},
                                                       {"charge", Value(2 + p % 3)},
                                                       {"score", Value(30.0 + p % 50)}});
        if (!peptide) return fail(peptide.error());
        tick(name);
      }
      auto volumes = rows.insert("IonVolumeGroup", {{"databaseSearchJoin", Value(*group)},
                                                    {"ionVolumeGroupName", Value("Joined ion volumes")}});
      if (!volumes) return fail(volumes.error());
      return {};
    });
    if (!written) return fail(written.error());
    summary.marked += marked ? 1 : 0;
    report(name);
  }

  Status collections = batch(database, [&]() -> Status {
    for (int d = 0; d < o.dataCollections; ++d) {
      const bool marked = d >= o.dataCollections - o.markedDataCollections;
      auto collection = rows.insert("DataCollection",
                                    {{"dataCollectionName", Value(fmt::format("Data collection {}", d + 1))},
                                     {"destinedForDeletion", Value(marked)}});
      if (!collection) return fail(collection.error());
      summary.marked += marked ? 1 : 0;
      for (std::size_t c = static_cast<std::size_t>(d); c < chromatograms.size();
           c += static_cast<std::size_t>(o.dataCollections)) {
        if (auto linked = rows.link("DataCollection", "chromatograms", *collection, chromatograms[c]);
            !linked) {
          return linked;
        }
      }
      for (std::size_t s = static_cast<std::size_t>(d); s < searches.size();
           s += static_cast<std::size_t>(o.dataCollections)) {
        if (auto linked = rows.link("DataCollection", "databaseSearchResults", *collection, searches[s]);
            !linked) {
          return linked;
        }
      }
    }
    return {};
  });
  if (!collections) return fail(collections.error());
  report("Data collections");

  summary.objects = rows.written();
  return summary;
}

}  // namespace tesselune
