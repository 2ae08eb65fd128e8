// A numeric locale whose decimal separator is a comma (de_DE.UTF-8), in force for one scope, as a
// Qt application puts the user's locale in force. Machines without it get it compiled with
// localedef into the test folder ("locales/", made once and reused), which LOCPATH then names.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace tesselune::test {

class DecimalCommaLocale {
 public:
  static constexpr const char* kName = "de_DE.UTF-8";

  DecimalCommaLocale() {
    const char* current = std::setlocale(LC_NUMERIC, nullptr);
    previous_ = current != nullptr ? current : "C";
    if (std::setlocale(LC_NUMERIC, kName) == nullptr) {
      compileLocale();
      std::setlocale(LC_NUMERIC, kName);
    }
    const char* point = std::localeconv()->decimal_point;
    active_ = point != nullptr && std::string(point) == ",";
  }
  ~DecimalCommaLocale() { std::setlocale(LC_NUMERIC, previous_.c_str()); }
  DecimalCommaLocale(const DecimalCommaLocale&) = delete;
  DecimalCommaLocale& operator=(const DecimalCommaLocale&) = delete;

  // Whether numbers now print with a decimal comma (strtod("2.5") would give 2).
  bool active() const { return active_; }

 private:
  static void compileLocale() {
    namespace fs = std::filesystem;
    const fs::path folder = fs::absolute("locales");
    if (!fs::exists(folder / kName)) {
      // Built aside, then renamed, so that tests running side by side never see half a locale.
      const fs::path scratch = fs::absolute("locales." + std::to_string(::getpid()));
      fs::create_directories(scratch);
      const std::string command =
          "localedef -i de_DE -f UTF-8 '" + (scratch / kName).string() + "' >/dev/null 2>&1";
      (void)std::system(command.c_str());
      std::error_code ec;
      fs::create_directories(folder, ec);
      fs::rename(scratch / kName, folder / kName, ec);
      fs::remove_all(scratch, ec);
    }
    ::setenv("LOCPATH", folder.c_str(), 1);
  }

  std::string previous_;
  bool active_ = false;
};

}  // namespace tesselune::test
