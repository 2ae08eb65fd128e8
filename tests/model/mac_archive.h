// Test support: keyed archives laid out object by object as macOS's NSKeyedArchiver writes them
// ($objects table, "$classes" chains, UID references, NSMutableArray / NSMutableDictionary for what
// encodeEncodable writes), so that tests decode archives of the main application's shape rather
// than what our own archiver happens to produce. Written as binary property lists; reals that do
// not fit a float are written with 8 bytes, as macOS writes every real.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "foundation/property_list.h"
#include "foundation/value.h"

namespace tesselune::test {

class MacArchive {
 public:
  MacArchive() { objects_.emplace_back("$null"); }

  static Value uid(std::uint64_t index) { return Value::dictionary({{"CF$UID", Value(index)}}); }

  // A plain value (string, number) in the table; its UID.
  std::uint64_t add(Value value) {
    objects_.push_back(std::move(value));
    return objects_.size() - 1;
  }
  // An object of `chain` (class name first) with its coded keys.
  std::uint64_t object(const std::vector<std::string>& chain, Dictionary keys) {
    keys.insert_or_assign("$class", uid(classIndex(chain)));
    return add(Value(std::move(keys)));
  }
  std::uint64_t mutableArray(const std::vector<std::uint64_t>& items) {
    return object({"NSMutableArray", "NSArray", "NSObject"}, {{"NS.objects", uids(items)}});
  }
  std::uint64_t array(const std::vector<std::uint64_t>& items) {
    return object({"NSArray", "NSObject"}, {{"NS.objects", uids(items)}});
  }
  std::uint64_t set(const std::vector<std::uint64_t>& items) {
    return object({"NSSet", "NSObject"}, {{"NS.objects", uids(items)}});
  }
  std::uint64_t mutableDictionary(const std::vector<std::pair<std::string, std::uint64_t>>& entries) {
    std::vector<std::uint64_t> keys, values;
    for (const auto& [key, value] : entries) {
      keys.push_back(add(Value(key)));
      values.push_back(value);
    }
    return object({"NSMutableDictionary", "NSDictionary", "NSObject"},
                  {{"NS.keys", uids(keys)}, {"NS.objects", uids(values)}});
  }
  std::uint64_t url(const std::string& absolute) {
    return object({"NSURL", "NSObject"}, {{"NS.base", uid(0)}, {"NS.relative", uid(add(Value(absolute)))}});
  }
  std::uint64_t uuid(const Uuid& value) {
    const auto& bytes = value.bytes();
    return object({"NSUUID", "NSObject"}, {{"NS.uuidbytes", Value(Bytes(bytes.begin(), bytes.end()))}});
  }
  // What encodeEncodable writes for a URL: { "relative": the string }.
  std::uint64_t encodableUrl(const std::string& absolute) {
    return mutableDictionary({{"relative", add(Value(absolute))}});
  }

  Bytes data(std::uint64_t root) const {
    Dictionary top{{"$archiver", Value("NSKeyedArchiver")},
                   {"$version", Value(100000)},
                   {"$top", Value::dictionary({{"root", uid(root)}})},
                   {"$objects", Value(objects_)}};
    auto bytes = dataWithPropertyList(Value(std::move(top)));
    EXPECT_TRUE(bytes) << bytes.error().debugDescription();
    return bytes ? *bytes : Bytes();
  }

 private:
  static Value uids(const std::vector<std::uint64_t>& items) {
    Array list;
    for (auto item : items) list.push_back(uid(item));
    return Value(std::move(list));
  }
  std::uint64_t classIndex(const std::vector<std::string>& chain) {
    if (auto found = classes_.find(chain.front()); found != classes_.end()) return found->second;
    Array names;
    for (const auto& name : chain) names.emplace_back(name);
    const auto index =
        add(Value::dictionary({{"$classname", Value(chain.front())}, {"$classes", Value(names)}}));
    classes_[chain.front()] = index;
    return index;
  }

  Array objects_;
  std::map<std::string, std::uint64_t> classes_;
};

// Replaces one column of one row of a closed store file, as the main application's save would
// have left it.
inline void writeBlob(const std::filesystem::path& store, const std::string& table, const std::string& column,
                      std::int64_t primaryKey, const Bytes& blob) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(store.c_str(), &db), SQLITE_OK);
  const std::string sql = "UPDATE " + table + " SET " + column + " = ? WHERE Z_PK = ?";
  sqlite3_stmt* statement = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_bind_blob(statement, 1, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
  sqlite3_bind_int64(statement, 2, primaryKey);
  EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE) << sqlite3_errmsg(db);
  EXPECT_EQ(sqlite3_changes(db), 1);
  sqlite3_finalize(statement);
  sqlite3_close(db);
}

}  // namespace tesselune::test
