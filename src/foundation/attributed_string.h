// AttributedString: the archived form of NSAttributedString, a string with runs of attribute
// dictionaries, as it appears inside keyed archives.
//
// Run lengths count UTF-16 units, as NSString does. The object is immutable once made and may be
// shared between threads.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "foundation/coding.h"
#include "foundation/value.h"

namespace tesselune {

class AttributedString : public Object, public Coding {
 public:
  struct Run {
    std::size_t length = 0;  // in UTF-16 units
    Dictionary attributes;
    friend bool operator==(const Run&, const Run&) = default;
  };

  AttributedString() = default;
  AttributedString(std::string string, std::vector<Run> runs, bool isMutable = false)
      : string_(std::move(string)), runs_(std::move(runs)), mutable_(isMutable) {}

  const std::string& string() const { return string_; }
  const std::vector<Run>& runs() const { return runs_; }

  std::string className() const override {
    return mutable_ ? "NSMutableAttributedString" : "NSAttributedString";
  }
  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;
  std::string description() const override;

  void encodeWithCoder(KeyedArchiver& coder) const override;
  [[nodiscard]] Status initWithCoder(KeyedUnarchiver& coder) override;
  std::vector<std::string> classChain() const override;

 private:
  std::string string_;
  std::vector<Run> runs_;
  bool mutable_ = false;
};

}  // namespace tesselune
