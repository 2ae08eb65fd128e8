// Fuzz target: the keyed unarchiver must turn any input into a Value or an Error, with and without
// secure decoding, through Foundation's classes and a class of our own that reads every kind of key.

#include <cstdint>
#include <span>

#include "foundation/keyed_archiver.h"
#include "foundation/keyed_unarchiver.h"

namespace {

using namespace tesselune;

// Reads one of everything, as model classes do.
class Probe : public Object, public Coding {
 public:
  std::string className() const override { return "Tesselune.Probe"; }
  void encodeWithCoder(KeyedArchiver& coder) const override { coder.encodeObject(inner_, "inner"); }
  Status initWithCoder(KeyedUnarchiver& coder) override {
    inner_ = coder.decodeObjectOfClasses(
        {"NSArray", "NSDictionary", "NSString", "NSNumber", "Tesselune.Probe"}, "inner");
    (void)coder.decodeInt32ForKey("i32");
    (void)coder.decodeInt64ForKey("i64");
    (void)coder.decodeDoubleForKey("d");
    (void)coder.decodeBoolForKey("b");
    (void)coder.decodeBytesForKey("bytes");
    (void)coder.decodeDecodableUuid("uuid");
    (void)coder.decodeDecodableUrl("url");
    (void)coder.decodeDecodableStrings("strings");
    (void)coder.decodeDecodableDoubleArrays("matrix");
    if (coder.error()) return fail(*coder.error());
    return {};
  }

 private:
  Value inner_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool registered = [] {
    KeyedUnarchiver::setClassForClassName(codingClass<Probe>({"Tesselune.Probe", "NSObject"}),
                                          "Tesselune.Probe");
    return true;
  }();
  (void)registered;

  const std::span bytes(data, size);
  auto insecure = KeyedUnarchiver::unarchiveTopLevelObjectWithData(bytes);
  ClassSet classes = foundationClasses();
  classes.insert("Tesselune.Probe");
  auto secure = KeyedUnarchiver::unarchivedObjectOfClasses(classes, bytes);
  if (secure) (void)KeyedArchiver::archivedDataWithRootObject(*secure, false);

  // Archives whose objects sit under "$0", "$1", ...
  if (auto unarchiver = KeyedUnarchiver::create(bytes, false)) {
    for (int i = 0; i < 4 && !(*unarchiver)->error(); ++i) (void)(*unarchiver)->decodeObject();
  }
  return 0;
}
