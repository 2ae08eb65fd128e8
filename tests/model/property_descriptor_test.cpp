// Property descriptors: defaults, the exclusive attribute and relationship sides, and writing
// edited texts back into store objects of a real store by the attribute's value class.

#include "model/property_descriptor.h"

#include <gtest/gtest.h>

#include "decimal_comma_locale.h"
#include "test_store.h"

namespace tesselune {
namespace {

TEST(PropertyDescriptor, DefaultsAndUnavailableInit) {
  PropertyDescriptor descriptor(Value("anything"));
  EXPECT_EQ(descriptor.propertyName(), "Property Name");
  EXPECT_FALSE(descriptor.editable());
  EXPECT_TRUE(descriptor.attributeContent().isNull());
  EXPECT_TRUE(descriptor.relationshipContent().isNull());
  try {
    PropertyDescriptor unavailable;
    FAIL() << "init is not available";
  } catch (const InternalInconsistencyException& e) {
    EXPECT_STREQ(e.what(),
                 "Error when instantiating a DataPropertiesView. The init function is not implemented.");
  }
}

TEST(PropertyDescriptor, OneSideClearsTheOther) {
  PropertyDescriptor descriptor{Value()};
  descriptor.setRelationshipKey("spectra");
  descriptor.setAttributeKey("");
  EXPECT_EQ(descriptor.relationshipKey(), "spectra");  // an empty key clears nothing
  descriptor.setAttributeKey("name");
  EXPECT_FALSE(descriptor.relationshipKey());
  EXPECT_TRUE(descriptor.editable());
  descriptor.setRelationshipKey("spectra");
  EXPECT_FALSE(descriptor.attributeKey());
  EXPECT_FALSE(descriptor.editable());

  int calls = 0;
  descriptor.setAttributeContentGenerator([&] { return Value(std::to_string(++calls)); });
  EXPECT_EQ(descriptor.attributeContent(), Value("1"));
  EXPECT_EQ(descriptor.attributeContent(), Value("2"));  // called on every read
  descriptor.setRelationshipContentGenerator(nullptr);
  EXPECT_TRUE(descriptor.attributeContentGenerator());
  descriptor.setRelationshipContentGenerator([] { return Value("12 spectra"); });
  EXPECT_FALSE(descriptor.attributeContentGenerator());
  EXPECT_EQ(descriptor.relationshipContent(), Value("12 spectra"));
}

TEST(PropertyDescriptor, EditedValuesAreWrittenByTheAttributesClass) {
  auto store = test::openStore(test::scratchFolder("descriptors") / "TesseluneStore.tesselune");
  auto group = store.insert("PrecursorListGroup");
  auto peptide = store.insert("PeptideID");
  auto edit = [](const std::shared_ptr<ManagedObject>& object, const std::string& key, Value value) {
    PropertyDescriptor descriptor{Value(ObjectPtr(object))};
    descriptor.setAttributeKey(key);
    descriptor.setAttributeContent(value);
  };
  edit(group, "objectStoreMember", Value("1"));
  EXPECT_EQ(group->valueForKey("objectStoreMember"), Value(true));
  edit(group, "objectStoreMember", Value("NO"));
  EXPECT_EQ(group->valueForKey("objectStoreMember"), Value(false));
  edit(group, "name", Value("Edited"));
  EXPECT_EQ(group->valueForKey("name"), Value("Edited"));
  edit(peptide, "charge", Value(" 2.5"));
  EXPECT_EQ(peptide->valueForKey("charge"), Value(2.5));  // a double, which the store converts
  edit(peptide, "ionData", Value::data("\x01"));          // data is no class the editor writes
  EXPECT_TRUE(peptide->valueForKey("ionData").isNull());
  edit(peptide, "noSuchAttribute", Value("x"));
  edit(peptide, "precursorLists", Value("x"));

  {  // under a decimal-comma locale, as a Qt application puts the user's in force
    test::DecimalCommaLocale locale;
    ASSERT_TRUE(locale.active());
    edit(peptide, "charge", Value(" 3.25"));
    EXPECT_EQ(peptide->valueForKey("charge"), Value(3.25));
  }

  PropertyDescriptor plain{Value(Dictionary{})};
  plain.setAttributeKey("name");
  plain.setAttributeContent(Value("ignored"));  // not a managed object: nothing happens
}

}  // namespace
}  // namespace tesselune
