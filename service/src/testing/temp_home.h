// Test support: a fresh directory under the system's temporary directory, to
// serve as a home, removed with everything in it when the test ends. The one
// way the service's tests make a home.
#ifndef TOLVANGER_SERVICE_TESTING_TEMP_HOME_H_
#define TOLVANGER_SERVICE_TESTING_TEMP_HOME_H_

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tolvanger/service/home.h"

namespace tolvanger::service {

class TempHome {
 public:
  TempHome() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "tolvanger-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("could not make a temporary directory");
    }
    path = pattern;
  }
  ~TempHome() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  // The directory, as a home.
  Home home() const { return Home(path); }

  std::string path;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_TESTING_TEMP_HOME_H_
