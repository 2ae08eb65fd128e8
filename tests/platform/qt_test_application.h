// The one QApplication of a platform test program, on Qt's offscreen platform so that widgets
// work without a screen.
#pragma once

#include <stdlib.h>

#include <QApplication>

namespace tesselune::testing {

inline QApplication& testApplication() {
  static QApplication* app = [] {
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    static int argc = 1;
    static char name[] = "platform_test";
    static char* argv[] = {name, nullptr};
    // Never destroyed: Qt's own statics may be gone by the time static destructors run.
    return new QApplication(argc, argv);
  }();
  return *app;
}

}  // namespace tesselune::testing

// Fontconfig keeps a cache for the life of the process that the leak checker would report; it
// is not ours to free. (Included by one file per test program, so defined once.)
extern "C" __attribute__((used)) const char* __lsan_default_suppressions() {
  return "leak:libfontconfig\n";
}
