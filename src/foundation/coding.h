// Coding: how objects of our own classes go into keyed archives and come back, and the process-wide
// registry that maps archived class names to classes (setClass:forClassName:).
//
// A class that archives itself derives from Object and Coding. Decoding is two-phase: the registry's
// factory makes a blank instance, the unarchiver registers it, then initWithCoder fills it. Objects
// that refer back to an object being decoded (cycles) therefore get that very instance.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "foundation/error.h"
#include "foundation/value.h"

namespace tesselune {

class KeyedArchiver;
class KeyedUnarchiver;

class Coding {
 public:
  virtual ~Coding() = default;

  // Writes the object's state with the archiver's encode functions. Failures are reported with
  // coder.failWithError and surface when the archive is finished.
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
  // Reads the state into a blank instance. Called once per archived object, on the decoding thread.
  [[nodiscard]] virtual Status initWithCoder(KeyedUnarchiver& coder) = 0;
  // The "$classes" chain written for this object: its archived name, then superclasses, ending with
  // "NSObject". Empty means: the chain registered for className(), else { className(), "NSObject" }.
  virtual std::vector<std::string> classChain() const { return {}; }
};

// The Error for an archive that cannot be decoded (Cocoa 4864), for the unarchiver and for classes
// initWithCoder alike.
Error corruptArchiveError(std::string_view why);

// The "$classes" chain macOS writes for one of the Foundation classes that archives carry
// ("NSMutableArray" → NSMutableArray, NSArray, NSObject). Asking for another name is a programming
// error (std::logic_error).
const std::vector<std::string>& foundationClassChain(std::string_view className);

// A class as the unarchiver knows it.
struct CodingClass {
  // The "$classes" chain: the class's archived name first, then its superclasses, ending with
  // "NSObject". Secure decoding accepts an object when any name here is among the allowed classes.
  std::vector<std::string> classes;
  // Makes a blank instance; it must derive from both Object and Coding.
  std::function<std::shared_ptr<Object>()> make;
  // Whether objects decoded inside an instance's initWithCoder may refer back to the instance (a
  // cycle). Objects are shared pointers, so a cycle of strong references is never freed: set it only
  // for classes whose back references are held weakly (a child's link to its parent). Without it an
  // archive with such a cycle fails to decode.
  bool allowsBackReferences = false;
};

// A CodingClass for T (default-constructible, derived from Object and Coding).
template <class T>
CodingClass codingClass(std::vector<std::string> classes, bool allowsBackReferences = false) {
  static_assert(std::is_base_of_v<Object, T> && std::is_base_of_v<Coding, T>);
  return CodingClass{std::move(classes),
                     [] { return std::static_pointer_cast<Object>(std::make_shared<T>()); },
                     allowsBackReferences};
}

// The process-wide mapping from archived class names to classes. Thread-safe; the program fills it
// at start, before any archive is read.
class ValueTransformer;

class ClassRegistry {
 public:
  static ClassRegistry& shared();

  void setClass(std::string_view className, CodingClass cls);
  void removeClass(std::string_view className);
  std::optional<CodingClass> classNamed(std::string_view className) const;

  // Named value transformers (setValueTransformer:forName:) are classes by name too, and live here.
  void setValueTransformer(std::string_view name, std::shared_ptr<const ValueTransformer> transformer);
  std::shared_ptr<const ValueTransformer> valueTransformerNamed(std::string_view name) const;

 private:
  mutable std::shared_mutex mutex_;
  std::unordered_map<std::string, CodingClass> classes_;
  std::unordered_map<std::string, std::shared_ptr<const ValueTransformer>> transformers_;
};

}  // namespace tesselune
