// Contexts over a real store file: objects survive a save and a reopen with their attributes and
// relationships; fetches, delete rules, validation, optimistic locking with merge policies, batch
// deletes, observers, undo and the class registry behave as the platform's do.

#include "objectstore/managed_object_context.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "fixtures.h"
#include "foundation/value_transformer.h"

namespace tesselune {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kModel = R"(<model>
  <entity name="Department">
    <attribute name="name" attributeType="String"/>
    <relationship name="employees" optional="YES" toMany="YES" deletionRule="Cascade" destinationEntity="Employee" inverseName="department" inverseEntity="Employee"/>
    <relationship name="badges" optional="YES" toMany="YES" deletionRule="Deny" destinationEntity="Badge" inverseName="department" inverseEntity="Badge"/>
  </entity>
  <entity name="Employee" representedClassName="EmployeeMO">
    <attribute name="name" optional="YES" attributeType="String"/>
    <attribute name="salary" optional="YES" attributeType="Double"/>
    <attribute name="active" optional="YES" attributeType="Boolean" defaultValueString="YES"/>
    <attribute name="hired" optional="YES" attributeType="Date"/>
    <attribute name="tags" optional="YES" attributeType="Transformable"/>
    <attribute name="displayCache" optional="YES" transient="YES" attributeType="String"/>
    <relationship name="department" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Department" inverseName="employees" inverseEntity="Department"/>
    <relationship name="projects" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Project" inverseName="members" inverseEntity="Project"/>
  </entity>
  <entity name="Manager" parentEntity="Employee">
    <attribute name="level" optional="YES" attributeType="Integer 32"/>
  </entity>
  <entity name="Project">
    <attribute name="title" optional="YES" attributeType="String"/>
    <relationship name="members" optional="YES" toMany="YES" deletionRule="Nullify" destinationEntity="Employee" inverseName="projects" inverseEntity="Employee"/>
  </entity>
  <entity name="Badge">
    <attribute name="code" optional="YES" attributeType="String"/>
    <relationship name="department" optional="YES" maxCount="1" deletionRule="Nullify" destinationEntity="Department" inverseName="badges" inverseEntity="Department"/>
  </entity>
</model>)";

// An entity class: a derived key and an insert hook.
class EmployeeMO : public ManagedObject {
 public:
  void awakeFromInsert() override { setPrimitiveValue(Value("new hire"), "name"); }
  std::set<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override {
    if (key == "displayName") return {"name", "salary"};
    return {};
  }
};

class ContextTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = test::scratchFolder("context");
    auto model = ManagedObjectModel::modelWithXml(kModel, "company");
    ASSERT_TRUE(model) << model.error().debugDescription();
    model_ = *model;
    path_ = folder_ / "company.sqlite";
  }

  // A coordinator with the store and the entity classes, and a private-queue context on it.
  struct Stack {
    std::unique_ptr<PersistentStoreCoordinator> coordinator;
    std::unique_ptr<ManagedObjectContext> context;
  };
  Stack open() {
    Stack stack;
    stack.coordinator = std::make_unique<PersistentStoreCoordinator>(model_);
    auto registry = std::make_shared<ManagedObjectClassRegistry>();
    registry->registerClass("EmployeeMO", [] { return std::make_shared<EmployeeMO>(); });
    stack.coordinator->setManagedObjectClassRegistry(registry);
    auto store = stack.coordinator->addPersistentStore(
        PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(path_.string(), false)));
    EXPECT_TRUE(store) << store.error().debugDescription();
    stack.context = std::make_unique<ManagedObjectContext>(ManagedObjectContextConcurrencyType::PrivateQueue);
    stack.context->setPersistentStoreCoordinator(stack.coordinator.get());
    return stack;
  }

  std::string sql(const std::string& statement) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path_.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* s = nullptr;
    std::string out;
    EXPECT_EQ(sqlite3_prepare_v2(db, statement.c_str(), -1, &s, nullptr), SQLITE_OK) << statement;
    if (s && sqlite3_step(s) == SQLITE_ROW && sqlite3_column_text(s, 0))
      out = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
    sqlite3_finalize(s);
    sqlite3_close(db);
    return out;
  }

  // Research with Ada (manager) and Grace on project Engine; Ada also on Compiler.
  void seed(ManagedObjectContext& context) {
    auto research = context.insertNewObjectForEntityForName("Department");
    research->setValue(Value("Research"), "name");
    auto ada = context.insertNewObjectForEntityForName("Manager");
    ada->setValue(Value("Ada"), "name");
    ada->setValue(Value(120.5), "salary");
    ada->setValue(Value(std::int64_t{3}), "level");
    ada->setValue(Value(Date{700000000.25}), "hired");
    ada->setValue(Value(Array{Value("math"), Value("engines")}), "tags");
    auto grace = context.insertNewObjectForEntityForName("Employee");
    grace->setValue(Value("Grace"), "name");
    grace->setValue(Value(99.0), "salary");
    grace->setValue(Value(false), "active");
    auto engine = context.insertNewObjectForEntityForName("Project");
    engine->setValue(Value("Engine"), "title");
    auto compiler = context.insertNewObjectForEntityForName("Project");
    compiler->setValue(Value("Compiler"), "title");
    ada->setValue(Value(ObjectPtr(research)), "department");
    research->addObject(grace, "employees");
    ada->addObject(engine, "projects");
    ada->addObject(compiler, "projects");
    engine->addObject(grace, "members");
    ASSERT_TRUE(context.save());
  }

  std::shared_ptr<ManagedObject> one(ManagedObjectContext& context, const std::string& entity,
                                     const std::string& format) {
    auto request = FetchRequest::fetchRequestWithEntityName(entity);
    request.predicate = *predicateWithFormat(format);
    auto found = context.fetchObjects(request);
    EXPECT_TRUE(found) << found.error().debugDescription();
    EXPECT_EQ(found ? found->size() : 0u, 1u) << format;
    return found && !found->empty() ? found->front() : nullptr;
  }

  static std::set<std::string> names(const std::vector<std::shared_ptr<ManagedObject>>& objects,
                                     const char* key) {
    std::set<std::string> out;
    for (const auto& object : objects) out.insert(object->valueForKey(key).asString());
    return out;
  }

  fs::path folder_;
  fs::path path_;
  std::shared_ptr<const ManagedObjectModel> model_;
};

TEST_F(ContextTest, ObjectsSurviveSaveAndReopenWithTheirValuesAndRelationships) {
  {
    auto stack = open();
    seed(*stack.context);
    EXPECT_FALSE(stack.context->hasChanges());
  }
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok");
  auto stack = open();
  ManagedObjectContext& context = *stack.context;
  auto ada = one(context, "Employee", "name == 'Ada'");
  ASSERT_TRUE(ada);
  EXPECT_EQ(ada->entity().name(), "Manager");
  // Classes come by the entity's own class name: a sub-entity without one gets the default class.
  EXPECT_EQ(std::dynamic_pointer_cast<EmployeeMO>(ada), nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<EmployeeMO>(one(context, "Employee", "name == 'Grace'")), nullptr);
  EXPECT_EQ(ada->valueForKey("salary"), Value(120.5));
  EXPECT_EQ(ada->valueForKey("level"), Value(std::int64_t{3}));
  EXPECT_EQ(ada->valueForKey("active"), Value(true)) << "default value";
  EXPECT_EQ(ada->valueForKey("hired"), Value(Date{700000000.25}));
  EXPECT_EQ(ada->valueForKey("tags"), Value(Array{Value("math"), Value("engines")}));
  EXPECT_EQ(ada->objectID().URIRepresentation().host(),
            stack.coordinator->persistentStores().front()->identifier().string());

  auto research = ada->objectForKey("department");
  ASSERT_TRUE(research);
  EXPECT_TRUE(research->isFault());
  EXPECT_EQ(research->valueForKey("name"), Value("Research"));
  EXPECT_EQ(names(research->objectsForKey("employees"), "name"), (std::set<std::string>{"Ada", "Grace"}));
  EXPECT_EQ(names(ada->objectsForKey("projects"), "title"), (std::set<std::string>{"Engine", "Compiler"}));
  auto engine = one(context, "Project", "title == 'Engine'");
  EXPECT_EQ(names(engine->objectsForKey("members"), "name"), (std::set<std::string>{"Ada", "Grace"}));
  // One object per ID in a context.
  EXPECT_EQ(context.objectWithID(ada->objectID()), ada);
  EXPECT_EQ(*context.existingObjectWithID(research->objectID()), research);
  auto gone = context.existingObjectWithID(ManagedObjectID::permanent(
      *model_->entityNamed("Project"), stack.coordinator->persistentStores().front()->identifier(), 999));
  ASSERT_FALSE(gone);
  EXPECT_EQ(gone.error().code(), kManagedObjectReferentialIntegrityError);
}

TEST_F(ContextTest, FetchesFilterSortWindowAndCountIncludingUnsavedChanges) {
  auto stack = open();
  ManagedObjectContext& context = *stack.context;
  seed(context);
  auto research = one(context, "Department", "name == 'Research'");

  auto request = FetchRequest::fetchRequestWithEntityName("Employee");
  request.sortDescriptors = {SortDescriptor::sortDescriptorWithKey("salary", false)};
  auto all = context.fetchObjects(request);
  ASSERT_TRUE(all);
  ASSERT_EQ(all->size(), 2u);
  EXPECT_EQ(all->front()->valueForKey("name"), Value("Ada"));

  request.predicate = *predicateWithFormat("department == %@ AND active == NO", {Value(ObjectPtr(research))});
  EXPECT_EQ(names(*context.fetchObjects(request), "name"), std::set<std::string>{"Grace"});
  request.predicate = *predicateWithFormat("department == %@", {valueWithObjectID(research->objectID())});
  request.resultType = FetchRequestResultType::ManagedObjectID;
  EXPECT_EQ(context.executeFetchRequest(request)->size(), 2u);

  request = FetchRequest::fetchRequestWithEntityName("Employee");
  request.includesSubentities = false;
  EXPECT_EQ(names(*context.fetchObjects(request), "name"), std::set<std::string>{"Grace"});

  // Unsaved: a new match shows, a deleted object does not.
  auto alan = context.insertNewObjectForEntityForName("Employee");
  alan->setValue(Value("Alan"), "name");
  alan->setValue(Value(10.0), "salary");
  context.deleteObject(one(context, "Employee", "name == 'Grace'"));
  request = FetchRequest::fetchRequestWithEntityName("Employee");
  request.sortDescriptors = {SortDescriptor::sortDescriptorWithKey("salary", true)};
  auto pending = context.fetchObjects(request);
  ASSERT_TRUE(pending);
  ASSERT_EQ(pending->size(), 2u);
  EXPECT_EQ(pending->front()->valueForKey("name"), Value("Alan"));
  EXPECT_EQ(*context.countForFetchRequest(request), 2);
  request.resultType = FetchRequestResultType::Count;
  EXPECT_EQ(context.executeFetchRequest(request)->front(), Value(std::int64_t{2}));

  request.predicate = *predicateWithFormat("nickname == 'x'");
  auto unknown = context.fetchObjects(request);
  ASSERT_FALSE(unknown);
  EXPECT_NE(unknown.error().localizedDescription().find("nickname"), std::string::npos);
}

TEST_F(ContextTest, SavesApplyDeleteRulesAndDenyWritesNothing) {
  auto stack = open();
  ManagedObjectContext& context = *stack.context;
  seed(context);
  auto research = one(context, "Department", "name == 'Research'");
  auto badge = context.insertNewObjectForEntityForName("Badge");
  badge->setValue(Value(ObjectPtr(research)), "department");
  ASSERT_TRUE(context.save());

  // Deny: the badge holds the department; nothing is written.
  context.deleteObject(research);
  auto denied = context.save();
  ASSERT_FALSE(denied);
  EXPECT_EQ(denied.error().code(), kValidationRelationshipDeniedDeleteError);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZEMPLOYEE"), "2");
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZDEPARTMENT"), "1");

  // Without the badge the delete cascades to the employees, and their join rows go; the projects
  // stay and lose their members (nullify).
  context.deleteObject(badge);
  ASSERT_TRUE(context.save());
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZDEPARTMENT"), "0");
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZEMPLOYEE"), "0");
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZPROJECT"), "2");
  EXPECT_EQ(sql("SELECT COUNT(*) FROM Z_3PROJECTS"), "0");
  auto engine = one(context, "Project", "title == 'Engine'");
  EXPECT_TRUE(engine->objectsForKey("members").empty());
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok");
}

TEST_F(ContextTest, NullifyClearsTheInverseAndRequiredValuesAreChecked) {
  auto stack = open();
  ManagedObjectContext& context = *stack.context;
  seed(context);
  auto grace = one(context, "Employee", "name == 'Grace'");
  auto research = grace->objectForKey("department");
  context.deleteObject(grace);
  ASSERT_TRUE(context.save());
  EXPECT_EQ(names(research->objectsForKey("employees"), "name"), std::set<std::string>{"Ada"});
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZEMPLOYEE WHERE ZNAME = 'Grace'"), "0");
  EXPECT_EQ(sql("SELECT COUNT(*) FROM Z_3PROJECTS"), "2");

  auto nameless = context.insertNewObjectForEntityForName("Department");
  auto missing = context.save();
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code(), kValidationMissingMandatoryPropertyError);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZDEPARTMENT"), "1");
  nameless->setValue(Value("Archive"), "name");
  EXPECT_TRUE(context.save());
}

TEST_F(ContextTest, RowsChangedElsewhereConflictOrMergeByPolicy) {
  {
    auto stack = open();
    seed(*stack.context);
  }
  auto mine = open();
  auto theirs = open();
  auto myAda = one(*mine.context, "Employee", "name == 'Ada'");
  auto theirAda = one(*theirs.context, "Employee", "name == 'Ada'");
  theirAda->setValue(Value(1.0), "salary");
  ASSERT_TRUE(theirs.context->save());

  myAda->setValue(Value(false), "active");
  auto conflict = mine.context->save();
  ASSERT_FALSE(conflict);
  EXPECT_EQ(conflict.error().code(), kManagedObjectMergeError);
  EXPECT_EQ(sql("SELECT ZSALARY || '/' || ZACTIVE FROM ZEMPLOYEE WHERE ZNAME = 'Ada'"), "1.0/1");

  // Object trumps, property by property: my change wins, theirs stays.
  mine.context->setMergePolicy(MergePolicyType::MergeByPropertyObjectTrump);
  ASSERT_TRUE(mine.context->save());
  EXPECT_EQ(sql("SELECT ZSALARY || '/' || ZACTIVE FROM ZEMPLOYEE WHERE ZNAME = 'Ada'"), "1.0/0");
  EXPECT_EQ(myAda->valueForKey("salary"), Value(1.0));
  EXPECT_EQ(sql("SELECT Z_OPT FROM ZEMPLOYEE WHERE ZNAME = 'Ada'"), "3");
}

TEST_F(ContextTest, BatchDeletesGoStraightToTheStore) {
  auto stack = open();
  ManagedObjectContext& context = *stack.context;
  seed(context);
  auto request = FetchRequest::fetchRequestWithEntityName("Employee");
  request.predicate = *predicateWithFormat("salary < 100");
  auto batch = BatchDeleteRequest::initWithFetchRequest(request);
  batch.resultType = BatchDeleteRequestResultType::ResultTypeCount;
  auto result = context.executeRequest(batch);
  ASSERT_TRUE(result) << result.error().debugDescription();
  EXPECT_EQ(result->count, 1);
  EXPECT_EQ(sql("SELECT group_concat(ZNAME) FROM ZEMPLOYEE"), "Ada");

  auto engine = one(context, "Project", "title == 'Engine'");
  auto byID = BatchDeleteRequest::initWithObjectIDs({engine->objectID()});
  byID.resultType = BatchDeleteRequestResultType::ResultTypeObjectIDs;
  result = context.executeRequest(byID);
  ASSERT_TRUE(result);
  ASSERT_EQ(result->objectIDs.size(), 1u);
  EXPECT_EQ(result->objectIDs.front(), engine->objectID());
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZPROJECT"), "1");
}

TEST_F(ContextTest, ObserversUndoHooksAndQueues) {
  auto stack = open();
  ManagedObjectContext& context = *stack.context;
  context.setUndoManager(std::make_shared<UndoManager>());
  auto alan = context.insertNewObjectForEntityForName("Employee");
  EXPECT_EQ(alan->valueForKey("name"), Value("new hire")) << "awakeFromInsert";

  std::vector<std::string> seen;
  auto observer =
      alan->addObserver("displayName", [&](ManagedObject&, std::string_view key) { seen.emplace_back(key); });
  alan->setValue(Value("Alan"), "name");
  alan->setValue(Value(5.0), "salary");
  alan->setValue(Value(true), "active");
  EXPECT_EQ(seen, (std::vector<std::string>{"displayName", "displayName"}));
  alan->removeObserver(observer);

  context.undoManager()->undo();
  EXPECT_EQ(alan->valueForKey("active"), Value(true)) << "undo of the last change: back to the default";
  context.undoManager()->undo();
  EXPECT_TRUE(alan->valueForKey("salary").isNull());

  // performBlockAndWait nests on the caller's thread; performBlock runs on the context's queue.
  const auto caller = std::this_thread::get_id();
  bool nested = false;
  context.performBlockAndWait(
      [&] { context.performBlockAndWait([&] { nested = std::this_thread::get_id() == caller; }); });
  EXPECT_TRUE(nested);
  std::promise<std::thread::id> ran;
  context.performBlock([&] { ran.set_value(std::this_thread::get_id()); });
  EXPECT_NE(ran.get_future().get(), caller);

  // A cache in a transient attribute does not make an object changed; a transient change by key
  // does, but writes nothing.
  ASSERT_TRUE(context.save());
  alan->setPrimitiveValue(Value("cached"), "displayCache");
  EXPECT_FALSE(context.hasChanges());
  alan->setValue(Value("shown"), "displayCache");
  EXPECT_TRUE(context.hasChanges());
  ASSERT_TRUE(context.save());
  EXPECT_EQ(sql("SELECT Z_OPT FROM ZEMPLOYEE"), "1");

  context.reset();
  EXPECT_EQ(context.registeredObjectCount(), 0u);
  EXPECT_EQ(alan->managedObjectContext(), nullptr);
}

// A transformer registered by name writes the stored form; permanent IDs can be had before saving
// and stay the objects' IDs through the save.
// A handle taken through a weak reference keeps the context usable while its owner destroys it
// on another thread; once the owner is done, the weak reference answers nothing.
TEST_F(ContextTest, HandlesHoldOffTheDestructionOfTheirContext) {
  auto stack = open();
  const WeakContext weak(stack.context.get());
  std::atomic<bool> destroyed = false;
  std::thread owner;
  {
    ContextHandle handle = weak.lock();
    ASSERT_TRUE(handle);
    EXPECT_EQ(handle, stack.context.get());
    const ContextHandle copy = handle;
    owner = std::thread([&] {
      stack.context.reset();
      destroyed = true;
    });
    // The owner is blocked in the destructor; the context stays whole meanwhile.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(destroyed);
    EXPECT_FALSE(weak.lock()) << "no new handles once destruction has begun";
    handle->performBlockAndWait([&] {
      auto employee = handle->insertNewObjectForEntityForName("Employee");
      EXPECT_EQ(employee->managedObjectContext(), handle.get());
    });
    handle = ContextHandle();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(destroyed) << "a copy still holds it";
    EXPECT_GT(copy->registeredObjectCount(), 0u);
  }
  owner.join();
  EXPECT_TRUE(destroyed);
  EXPECT_FALSE(weak.lock());
  EXPECT_FALSE(weak);

  // The owning thread may destroy a context while it holds a handle itself.
  auto again = open();
  const WeakContext other(again.context.get());
  const ContextHandle own = other.lock();
  again.context.reset();
  EXPECT_FALSE(other.lock());
}

TEST_F(ContextTest, NamedTransformersAndEarlyPermanentIDs) {
  class Reversing : public ValueTransformer {
   public:
    Expected<Bytes> transformedValue(const Value& value) const override {
      std::string text = value.asArray().front().asString();
      return Bytes(text.rbegin(), text.rend());
    }
    Expected<Value> reverseTransformedValue(const Bytes& data) const override {
      return Value(Array{Value(std::string(data.rbegin(), data.rend()))});
    }
  };
  auto xml = std::string(kModel);
  xml.replace(xml.find(R"(attributeType="Transformable")"), 29,
              R"(attributeType="Transformable" valueTransformerName="ReversingTransformer")");
  model_ = *ManagedObjectModel::modelWithXml(xml, "company");
  ValueTransformer::setValueTransformer(std::make_shared<Reversing>(), "ReversingTransformer");
  {
    auto stack = open();
    auto lin = stack.context->insertNewObjectForEntityForName("Employee");
    lin->setValue(Value(Array{Value("abc")}), "tags");
    ASSERT_TRUE(stack.context->obtainPermanentIDsForObjects({lin}));
    const ManagedObjectID early = lin->objectID();
    EXPECT_FALSE(early.isTemporaryID());
    EXPECT_EQ(stack.context->objectRegisteredForID(early), lin);
    ASSERT_TRUE(stack.context->save());
    EXPECT_EQ(lin->objectID(), early);
  }
  EXPECT_EQ(sql("SELECT CAST(ZTAGS AS TEXT) FROM ZEMPLOYEE"), "cba");
  auto stack = open();
  EXPECT_EQ(one(*stack.context, "Employee", "name == 'new hire'")->valueForKey("tags"),
            Value(Array{Value("abc")}));
  ValueTransformer::setValueTransformer(nullptr, "ReversingTransformer");
}

// Two processes on one store: one saves in a loop while the other inserts and batch-deletes. The
// busy timeout keeps locks from surfacing as errors, and nothing either wrote is lost.
TEST_F(ContextTest, TwoProcessesShareTheStoreWithoutBusyErrorsOrLostWrites) {
  { auto stack = open(); }
  constexpr int kSaves = 150;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int failures = 0;
    {
      auto stack = open();
      for (int i = 0; i < kSaves; ++i) {
        auto employee = stack.context->insertNewObjectForEntityForName("Employee");
        employee->setValue(Value("child-" + std::to_string(i)), "name");
        if (auto saved = stack.context->save(); !saved) {
          fprintf(stderr, "child save %d: %s\n", i, saved.error().debugDescription().c_str());
          ++failures;
        }
      }
    }
    _exit(failures == 0 ? 0 : 1);
  }
  auto stack = open();
  int rounds = 0;
  int status = 0;
  bool childDone = false;
  while (!childDone || rounds < 3) {
    for (int i = 0; i < 20; ++i) {
      stack.context->insertNewObjectForEntityForName("Project")->setValue(Value("p"), "title");
    }
    ASSERT_TRUE(stack.context->save());
    auto batch =
        BatchDeleteRequest::initWithFetchRequest(FetchRequest::fetchRequestWithEntityName("Project"));
    batch.resultType = BatchDeleteRequestResultType::ResultTypeCount;
    auto deleted = stack.context->executeRequest(batch);
    ASSERT_TRUE(deleted) << deleted.error().debugDescription();
    EXPECT_EQ(deleted->count, 20);
    stack.context->reset();
    ++rounds;
    if (!childDone && waitpid(child, &status, WNOHANG) == child) childDone = true;
  }
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the saving process met errors";
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZEMPLOYEE WHERE ZNAME LIKE 'child-%'"), std::to_string(kSaves));
  EXPECT_EQ(sql("SELECT COUNT(DISTINCT Z_PK) FROM ZEMPLOYEE"), std::to_string(kSaves));
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ZPROJECT"), "0");
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok");
}

// Core Data's own store: fetches across the abstract region hierarchy, a delete through the context
// with nullify rules, versions and key counters as Core Data leaves them, and a conflict with
// another connection.
TEST(FixtureStoreContext, FetchesDeletesAndConflictsOnMoody) {
  const fs::path folder = test::scratchFolder("moody-context");
  const fs::path path = test::copyFixtureStore("coredata/moody/stores/Moody.moody", folder);
  auto model = ManagedObjectModel::modelWithContentsOfFile(
      fs::path(TESSELUNE_FIXTURES_DIR) / "coredata/moody/Moody.xcdatamodeld/Moody.xcdatamodel");
  ASSERT_TRUE(model);
  auto query = [&](const std::string& statement) {
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, statement.c_str(), -1, &s, nullptr);
    std::string out;
    while (s && sqlite3_step(s) == SQLITE_ROW)
      out += (out.empty() ? "" : ",") + std::string(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)));
    sqlite3_finalize(s);
    sqlite3_close(db);
    return out;
  };
  {
    PersistentStoreCoordinator coordinator(*model);
    ASSERT_TRUE(coordinator.addPersistentStore(
        PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(path.string(), false))));
    const Uuid store = coordinator.persistentStores().front()->identifier();
    ManagedObjectContext context(ManagedObjectContextConcurrencyType::PrivateQueue);
    context.setPersistentStoreCoordinator(&coordinator);

    auto count = [&](const std::string& entity, bool sub, const std::string& format = "TRUEPREDICATE") {
      auto request = FetchRequest::fetchRequestWithEntityName(entity);
      request.includesSubentities = sub;
      request.predicate = *predicateWithFormat(format);
      auto objects = context.fetchObjects(request);
      EXPECT_TRUE(objects) << objects.error().debugDescription();
      return objects ? objects->size() : 0u;
    };
    EXPECT_EQ(count("GeographicRegion", true), 5u);
    EXPECT_EQ(count("GeographicRegion", false), 0u);
    EXPECT_EQ(count("Country", true), 3u);
    EXPECT_EQ(count("Continent", true), 2u);
    auto europe =
        context.objectWithID(ManagedObjectID::permanent(*(*model)->entityNamed("Continent"), store, 2));
    auto request = FetchRequest::fetchRequestWithEntityName("Country");
    request.predicate = *predicateWithFormat("continent == %@", {Value(ObjectPtr(europe))});
    request.resultType = FetchRequestResultType::ManagedObjectID;
    auto ids = context.executeFetchRequest(request);
    ASSERT_TRUE(ids);
    EXPECT_EQ(ids->size(), 2u);

    // Deleting country 21 nullifies its moods (39, 100) and leaves its continent with one country.
    context.deleteObject(
        context.objectWithID(ManagedObjectID::permanent(*(*model)->entityNamed("Country"), store, 21)));
    auto saved = context.save();
    ASSERT_TRUE(saved) << saved.error().debugDescription();
    EXPECT_EQ(europe->objectsForKey("countries").size(), 1u);

    // Another connection changes a mood: this context's stale copy conflicts.
    auto mood = context.objectWithID(ManagedObjectID::permanent(*(*model)->entityNamed("Mood"), store, 38));
    (void)mood->valueForKey("latitude");  // read before the other connection writes
    query("UPDATE ZMOOD SET Z_OPT = Z_OPT + 1 WHERE Z_PK = 38");
    mood->setValue(Value(12.5), "latitude");
    auto conflict = context.save();
    ASSERT_FALSE(conflict);
    EXPECT_EQ(conflict.error().code(), kManagedObjectMergeError);
  }
  EXPECT_EQ(query("SELECT Z_PK || ':' || IFNULL(ZCOUNTRY, '-') || ':' || Z_OPT FROM ZMOOD ORDER BY Z_PK"),
            "38:30:2,39:-:2,84:31:1,100:-:2");
  EXPECT_EQ(query("SELECT Z_PK || ':' || Z_OPT FROM ZGEOGRAPHICREGION ORDER BY Z_PK"), "1:2,2:2,30:1,31:1");
  EXPECT_EQ(query("SELECT Z_MAX FROM Z_PRIMARYKEY ORDER BY Z_ENT"), "36,0,0,116");
  EXPECT_EQ(query("PRAGMA integrity_check"), "ok");
  PersistentStoreCoordinator reopened(*model);
  EXPECT_TRUE(reopened.addPersistentStore(
      PersistentStoreDescription::persistentStoreDescriptionWithURL(Url::fileUrl(path.string(), false))));
}

}  // namespace
}  // namespace tesselune
