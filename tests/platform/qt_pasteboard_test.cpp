// The Qt pasteboard on the offscreen platform: pasteboard types travel as MIME formats named by
// the dynamic type identifiers, over drag data and over the clipboard.

#include "platform/qt_pasteboard.h"

#include <gtest/gtest.h>

#include <QMimeData>

#include "foundation/type_identifier.h"
#include "qt_test_application.h"

namespace tesselune {
namespace {

TEST(QtPasteboard, DragDataCarriesPropertyListsUnderTheDynamicIdentifiers) {
  testing::testApplication();
  QMimeData data;
  auto drag = QtPasteboard::dragPasteboard(data);
  EXPECT_EQ(drag.name(), kPasteboardNameDrag);
  const std::string type = dynamicUTIForPasteboardType("ObjectStoreObjects");
  const Value archive = Value::data(std::string("bplist00\0\x01\xff", 11));
  drag.setPropertyList(archive, type);
  drag.setPropertyList(Value("not data"), "public.utf8-plain-text");

  // What another program's drop sees: the same bytes under the identifier as MIME format.
  EXPECT_TRUE(data.hasFormat(QString::fromStdString(type)));
  EXPECT_EQ(data.formats().size(), 1);
  EXPECT_EQ(drag.types(), std::vector<std::string>{type});
  EXPECT_EQ(drag.propertyListForType(type), archive);
  EXPECT_FALSE(drag.propertyListForType(dynamicUTIForPasteboardType("PrecursorListGroup")));
  drag.clearContents();
  EXPECT_TRUE(drag.types().empty());
}

TEST(QtPasteboard, TheClipboardKeepsEveryTypeWritten) {
  testing::testApplication();
  auto general = QtPasteboard::generalPasteboard();
  EXPECT_EQ(general.name(), kPasteboardNameGeneral);
  general.clearContents();
  const std::string library = dynamicUTIForPasteboardType("LibraryDataObjects");
  const std::string group = dynamicUTIForPasteboardType("MarkerFragmentGroup");
  general.setPropertyList(Value::data("first"), library);
  general.setPropertyList(Value::data("second"), group);
  EXPECT_EQ(general.propertyListForType(library), Value::data("first"));
  EXPECT_EQ(general.propertyListForType(group), Value::data("second"));
  general.clearContents();
  EXPECT_FALSE(general.propertyListForType(library));
}

}  // namespace
}  // namespace tesselune
