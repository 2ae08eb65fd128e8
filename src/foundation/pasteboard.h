// Pasteboard: the little of a pasteboard that store objects read when something is dropped or
// pasted on them: the pasteboard's name and the property list kept for a type. Types are the
// dynamic type identifiers (type_identifier.h) of the pasteboard type names; the Qt glue in the
// platform layer maps them to MIME formats of the same name.
//
// Implementations are used from the thread that owns them (the main thread for the toolkit's).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/value.h"

namespace tesselune {

// The platform's names of its standard pasteboards.
inline constexpr std::string_view kPasteboardNameGeneral = "Apple CFPasteboard general";
inline constexpr std::string_view kPasteboardNameDrag = "Apple CFPasteboard drag";

class Pasteboard {
 public:
  virtual ~Pasteboard() = default;

  virtual std::string name() const = 0;
  // The types offered, in the order they were written.
  virtual std::vector<std::string> types() const = 0;
  // The property list for a type (data, for the types this program reads); nothing when the type
  // is not offered.
  virtual std::optional<Value> propertyListForType(std::string_view type) const = 0;
  // Offers `propertyList` (data) under `type`, beside what is there.
  virtual void setPropertyList(const Value& propertyList, std::string_view type) = 0;
  // Removes every type.
  virtual void clearContents() = 0;
};

// A pasteboard in memory, for drags within the program and for tests.
class MemoryPasteboard final : public Pasteboard {
 public:
  explicit MemoryPasteboard(std::string name) : name_(std::move(name)) {}

  std::string name() const override { return name_; }
  std::vector<std::string> types() const override {
    std::vector<std::string> names;
    for (const auto& [type, value] : items_) names.push_back(type);
    return names;
  }
  std::optional<Value> propertyListForType(std::string_view type) const override {
    for (const auto& [name, value] : items_) {
      if (name == type) return value;
    }
    return std::nullopt;
  }
  void setPropertyList(const Value& propertyList, std::string_view type) override {
    for (auto& [name, value] : items_) {
      if (name == type) {
        value = propertyList;
        return;
      }
    }
    items_.emplace_back(std::string(type), propertyList);
  }
  void clearContents() override { items_.clear(); }

 private:
  std::string name_;
  std::vector<std::pair<std::string, Value>> items_;
};

}  // namespace tesselune
