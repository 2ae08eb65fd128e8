// QtPasteboard: the Pasteboard of foundation/pasteboard.h over Qt's drag-and-drop and clipboard
// data. Pasteboard types (the dynamic type identifiers) are the MIME format names of the QMimeData,
// so two programs that agree on the identifiers exchange property lists unchanged.
//
// Use from the thread that owns the QApplication. The clipboard form needs a QGuiApplication; the
// drag form reads and writes the QMimeData of a drop or drag, which the caller owns and keeps alive
// while the pasteboard is used.
#pragma once

#include <string>
#include <string_view>

#include "foundation/pasteboard.h"

class QMimeData;

namespace tesselune {

class QtPasteboard final : public Pasteboard {
 public:
  // The drag pasteboard (kPasteboardNameDrag) over the data of one drag or drop.
  static QtPasteboard dragPasteboard(QMimeData& data);
  // The general pasteboard (kPasteboardNameGeneral): the system clipboard.
  static QtPasteboard generalPasteboard();

  std::string name() const override { return name_; }
  std::vector<std::string> types() const override;
  std::optional<Value> propertyListForType(std::string_view type) const override;
  // Only data is kept; other property lists are ignored, as they cannot be a MIME payload.
  void setPropertyList(const Value& propertyList, std::string_view type) override;
  void clearContents() override;

 private:
  QtPasteboard(std::string name, QMimeData* data) : name_(std::move(name)), data_(data) {}
  // The data to read: the drag's, or the clipboard's current data (nullptr when it has none).
  const QMimeData* readable() const;

  std::string name_;
  QMimeData* data_;  // nullptr for the clipboard
};

}  // namespace tesselune
