// QtPasteboard: pasteboard types as MIME formats of Qt's drag and clipboard data.

#include "platform/qt_pasteboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>
#include <memory>

namespace tesselune {

namespace {

QString formatOf(std::string_view type) {
  return QString::fromUtf8(type.data(), static_cast<qsizetype>(type.size()));
}

}  // namespace

QtPasteboard QtPasteboard::dragPasteboard(QMimeData& data) {
  return QtPasteboard(std::string(kPasteboardNameDrag), &data);
}

QtPasteboard QtPasteboard::generalPasteboard() {
  return QtPasteboard(std::string(kPasteboardNameGeneral), nullptr);
}

const QMimeData* QtPasteboard::readable() const {
  if (data_ != nullptr) return data_;
  return QGuiApplication::clipboard()->mimeData();
}

std::vector<std::string> QtPasteboard::types() const {
  std::vector<std::string> types;
  if (const QMimeData* data = readable()) {
    for (const QString& format : data->formats()) types.push_back(format.toStdString());
  }
  return types;
}

std::optional<Value> QtPasteboard::propertyListForType(std::string_view type) const {
  const QMimeData* data = readable();
  if (data == nullptr || !data->hasFormat(formatOf(type))) return std::nullopt;
  const QByteArray bytes = data->data(formatOf(type));
  return Value(Bytes(bytes.begin(), bytes.end()));
}

void QtPasteboard::setPropertyList(const Value& propertyList, std::string_view type) {
  if (!propertyList.isData()) return;
  const Bytes& bytes = propertyList.asData();
  const QByteArray payload(reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size()));
  if (data_ != nullptr) {
    data_->setData(formatOf(type), payload);
    return;
  }
  // The clipboard takes ownership of new data; keep what is there beside the new type.
  QClipboard* clipboard = QGuiApplication::clipboard();
  auto data = std::make_unique<QMimeData>();
  if (const QMimeData* current = clipboard->mimeData()) {
    for (const QString& format : current->formats()) data->setData(format, current->data(format));
  }
  data->setData(formatOf(type), payload);
  clipboard->setMimeData(data.release());
}

void QtPasteboard::clearContents() {
  if (data_ != nullptr) {
    data_->clear();
    return;
  }
  QGuiApplication::clipboard()->clear();
}

}  // namespace tesselune
