// The maintenance command's command line.
#include "app/store_command.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/data_library.h"
#include "app/demo_store.h"
#include "app/report_listing.h"
#include "app/store_delete.h"
#include "app/store_description.h"
#include "app/store_maintenance.h"
#include "app/store_verification.h"
#include "app/terminal_progress_bar.h"
#include "app/version.h"

namespace tesselune {

namespace {

// The text of a failure for people: SQLite's lock errors say what to do about them.
std::string describe(const Error& error, const std::filesystem::path& storeFile) {
  const bool locked = error.domain() == "NSSQLiteErrorDomain" &&
                      ((error.code() & 0xFF) == SQLITE_BUSY || (error.code() & 0xFF) == SQLITE_LOCKED);
  if (!locked) return error.localizedDescription();
  return fmt::format("The store at {} is locked by another program; try again when it is done. ({})",
                     storeFile.string(), error.localizedDescription());
}

// One clear line; with --verbose the platform's detail (SQLite's code and message, the statement,
// the path) follows on a line of its own.
void printFailure(const CommandOutput& output, bool verbose, const Error& error,
                  const std::filesystem::path& storeFile) {
  output.err << "tesselune-store: " << describe(error, storeFile) << '\n';
  if (verbose && !error.debugDetail().empty()) output.err << "  " << error.debugDetail() << '\n';
}

int failed(const CommandOutput& output, bool verbose, const Error& error,
           const std::filesystem::path& storeFile = {}) {
  printFailure(output, verbose, error, storeFile);
  return kExitFailure;
}

// The store, or the model it was asked for, could not be opened: nothing was read or changed.
int unopened(const CommandOutput& output, bool verbose, const Error& error,
             const std::filesystem::path& storeFile) {
  printFailure(output, verbose, error, storeFile);
  return kExitUnopened;
}

int usage(const CommandOutput& output, std::string_view message) {
  output.err << "tesselune-store: " << message << "\nRun with --help for the usage.\n";
  return kExitUsage;
}

Expected<DataLibrary> libraryFor(const std::string& storePath) {
  if (!storePath.empty()) return DataLibrary::forStoreFile(storePath);
  return DataLibrary::shared();
}

}  // namespace

int runStoreCommand(int argc, const char* const* argv, const CommandOutput& output) {
  CLI::App app{
      "Maintenance of the Tesselune store: make, fill, mark, inspect and check it, and read the "
      "deletion reports.",
      "tesselune-store"};
  app.set_version_flag("--version", versionText("tesselune-store"));
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(
      "Exit status: 0 done; 1 failed (verify: the store is damaged; delete: refused, or a dry run found that "
      "it would be); 2 the command line is wrong; 3 the store could not be opened (no such file, a folder, "
      "not a store, unreadable or locked) or the model given with --model is missing or does not fit it.");
  std::string storePath;
  app.add_option("--store", storePath,
                 "The store file to work on; by default TesseluneStore.tesselune in the shared data library "
                 "($XDG_DATA_HOME/Group Containers/KV3N8Q2ZR5.TesseluneGroup/Tesselune Data Library)");

  bool verbose = false;
  app.add_flag("--verbose", verbose,
               "On failure, also print what the store engine reported (for example SQLite's "
               "code, the statement and the file)");

  std::string modelPath;
  app.add_option(
      "--model", modelPath,
      "The model the store was made with (a .xcdatamodeld folder, a .xcdatamodel folder or its "
      "contents file), for inspect, verify and delete; by default the Tesselune store model or the "
      "model the store keeps of itself");

  CLI::App* create = app.add_subcommand("create", "Make a new, empty store (and the data library's folders)");

  DemoOptions demo;
  CLI::App* demoCommand =
      app.add_subcommand("demo",
                         "Make a new store filled with chromatograms, searches, search groups and data "
                         "collections, some of each marked for deletion, and their data folders");
  auto count = [&](const char* name, int& value, const char* help) {
    demoCommand->add_option(name, value, help)->capture_default_str()->check(CLI::NonNegativeNumber);
  };
  count("--chromatograms", demo.chromatograms, "Chromatograms to make");
  count("--spectra", demo.spectraPerChromatogram, "Spectra of each chromatogram");
  count("--fragment-spectra", demo.fragmentSpectraPerChromatogram, "Fragment spectra of each chromatogram");
  count("--searches", demo.searches, "Database searches, one per chromatogram from the first");
  count("--peptides", demo.peptidesPerSearch, "Peptide identifications of each search and search group");
  count("--proteins", demo.proteinsPerSearch, "Protein identifications of each search and search group");
  count("--search-groups", demo.searchGroups, "Search groups, each joining every search");
  count("--collections", demo.dataCollections, "Data collections");
  count("--mark-chromatograms", demo.markedChromatograms,
        "Chromatograms marked for deletion (the last ones)");
  count("--mark-searches", demo.markedSearches, "Searches marked for deletion (the last ones)");
  count("--mark-search-groups", demo.markedSearchGroups, "Search groups marked for deletion (the last ones)");
  count("--mark-collections", demo.markedDataCollections,
        "Data collections marked for deletion (the last ones)");
  count("--files", demo.filesPerDataFolder, "Files in each chromatogram's data folder");
  count("--file-kb", demo.kilobytesPerFile, "Size of each of those files in kilobytes");

  std::string markEntity;
  std::vector<std::string> markNames;
  std::vector<std::string> markURIs;
  CLI::App* mark = app.add_subcommand(
      "mark", "Mark objects for deletion by the store support program, by entity and name or by object URI");
  mark->add_option(
      "entity", markEntity,
      "Chromatogram, DatabaseSearchResult, DatabaseSearchJoin or DataCollection (or chromatogram, "
      "search, search-group, collection)");
  mark->add_option("names", markNames, "Names of the objects to mark (every object of that name is marked)");
  mark->add_option("--uri", markURIs, "Object URI (x-coredata://…) of an object to mark; may be repeated");

  CLI::App* status = app.add_subcommand("status", "What is marked, objects per entity, sizes of files");

  bool reportJson = false;
  CLI::App* report = app.add_subcommand(
      "report", "Decode and print the deletion reports in the data library's temporary folder");
  report->add_flag("--json", reportJson, "Print JSON instead of text");

  CLI::App* verify = app.add_subcommand(
      "verify",
      "Check SQLite's integrity, rows filed under entities foreign to their table, key counters and (with a "
      "model) references to missing rows; exit 1 when damaged, 3 when the store cannot be opened");

  bool inspectJson = false;
  CLI::App* inspect = app.add_subcommand(
      "inspect", "Describe any Core Data store: entities, tables, objects, relationships, metadata, files");
  inspect->add_flag("--json", inspectJson, "Print JSON instead of text");

  std::string deleteEntity;
  std::string deleteWhere;
  bool dryRun = false;
  CLI::App* deleteCommand = app.add_subcommand(
      "delete", "Delete the objects of an entity that match a predicate, with the store's delete rules");
  deleteCommand->add_option("entity", deleteEntity, "The entity (its sub-entities' objects match too)")
      ->required();
  deleteCommand->add_option("--where", deleteWhere, "A predicate, as in \"name == 'Anna' AND age > 30\"")
      ->required();
  deleteCommand->add_flag(
      "--dry-run", dryRun,
      "Change nothing: make the same delete on a scratch copy of the store in the temporary "
      "folder, count what it removes per entity (cascades included) and tell whether it "
      "would be refused");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e, output.out, output.err);
    return code == 0 ? kExitOk : kExitUsage;
  }

  auto library = libraryFor(storePath);
  if (!library) return failed(output, verbose, library.error());

  if (*create) {
    auto made = createStore(*library);
    if (!made) return failed(output, verbose, made.error());
    output.out << fmt::format("Made an empty store at {}\n", library->storeFile().string());
    return kExitOk;
  }

  if (*demoCommand) {
    if (auto valid = validateDemoOptions(demo); !valid)
      return usage(output, valid.error().localizedDescription());
    std::unique_ptr<TerminalProgressBar> bar;
    if (output.progress != nullptr) bar = std::make_unique<TerminalProgressBar>(output.progress);
    auto built = buildDemoStore(*library, demo, bar.get());
    if (bar) bar->finish();
    if (!built) return failed(output, verbose, built.error());
    output.out << fmt::format(
        "Made a demo store at {}: {} objects, {} marked for deletion, {} data folders\n",
        library->storeFile().string(), built->objects, built->marked, built->dataFolders);
    return kExitOk;
  }

  if (*inspect || *verify || *deleteCommand) {
    std::optional<std::filesystem::path> model;
    if (!modelPath.empty()) model = modelPath;
    // Only a real delete opens the store for writing.
    auto opened = openStoreWithModel(library->storeFile(), model, !*deleteCommand || dryRun);
    if (!opened) return unopened(output, verbose, opened.error(), library->storeFile());
    if (*inspect) {
      auto found = opened->hasModel() ? inspectStore(*opened->store, opened->modelSource)
                                      : inspectStoreWithoutModel(*opened->database, opened->modelSource);
      if (!found) return failed(output, verbose, found.error());
      output.out << (inspectJson ? inspectionJson(*found) : formatInspection(*found));
      return kExitOk;
    }
    if (*verify) {
      auto result =
          opened->hasModel() ? verifyStore(*opened->store) : verifyStoreWithoutModel(*opened->database);
      if (!result) return unopened(output, verbose, result.error(), library->storeFile());
      if (!opened->hasModel()) output.out << fmt::format("Model: {}\n", opened->modelSource);
      output.out << formatVerification(*result);
      return result->ok() ? kExitOk : kExitFailure;
    }
    if (!opened->hasModel()) return failed(output, verbose, maintenanceError(deleteRulesUnknownText(*opened)));
    DeleteOptions options;
    options.dryRun = dryRun;
    Progress progress;
    std::unique_ptr<TerminalProgressBar> bar;
    if (output.progress != nullptr) {
      bar = std::make_unique<TerminalProgressBar>(output.progress);
      bar->setInfoText(dryRun ? fmt::format("Deleting {} from a scratch copy", deleteEntity)
                              : fmt::format("Deleting {}", deleteEntity));
      progress.addObserver([&bar](const Progress& p) {
        if (p.totalUnitCount() > 0) bar->setMaximumIndicatorValue(static_cast<double>(p.totalUnitCount()));
        bar->setIndicatorValue(p.completedUnitCount());
      });
    }
    auto outcome = deleteObjectsMatching(*opened->store, deleteEntity, deleteWhere, options, &progress);
    if (bar) bar->finish();
    if (!outcome) return failed(output, verbose, outcome.error(), library->storeFile());
    output.out << formatDeleteOutcome(*outcome);
    return kExitOk;
  }

  if (*report) {
    const auto reports = readReports(library->temporaryFolder());
    output.out << (reportJson ? reportsJson(reports) : formatReports(reports));
    return kExitOk;
  }

  if (*mark) {
    if (markURIs.empty() && (markEntity.empty() || markNames.empty())) {
      return usage(output, "mark needs an entity and at least one name, or --uri.");
    }
    if (!markURIs.empty() && !markEntity.empty()) {
      return usage(output, "mark takes either an entity with names or --uri, not both.");
    }
    auto opened = openMaintenanceStore(library->storeFile(), false);
    if (!opened) return unopened(output, verbose, opened.error(), library->storeFile());
    std::vector<MarkedObject> marked;
    if (!markURIs.empty()) {
      for (const std::string& uri : markURIs) {
        auto one = markObjectWithURI(*opened->store, uri);
        if (!one) return failed(output, verbose, one.error());
        marked.push_back(std::move(*one));
      }
    } else {
      const EntityDescription* entity = markableEntityNamed(*opened->model, markEntity);
      if (entity == nullptr) {
        std::vector<std::string> names;
        for (const auto* e : markableEntities(*opened->model)) names.push_back(e->name());
        return usage(output, fmt::format("\"{}\" cannot be marked; marked can be: {}.", markEntity,
                                         fmt::join(names, ", ")));
      }
      for (const std::string& name : markNames) {
        auto some = markObjectsNamed(*opened->store, *entity, name);
        if (!some) return failed(output, verbose, some.error());
        marked.insert(marked.end(), some->begin(), some->end());
      }
    }
    for (const auto& object : marked) {
      output.out << fmt::format("Marked {} \"{}\" {}\n", object.entity, object.name, object.uri);
    }
    return kExitOk;
  }

  auto opened = openMaintenanceStore(library->storeFile(), true);
  if (!opened) return unopened(output, verbose, opened.error(), library->storeFile());
  if (*status) {
    auto found = storeStatus(*opened->store, *library);
    if (!found) return failed(output, verbose, found.error());
    output.out << fmt::format("Store: {}\n", library->storeFile().string()) << formatStatus(*found);
    return kExitOk;
  }
  return usage(output, "no command given.");
}

}  // namespace tesselune
