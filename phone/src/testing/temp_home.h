// Test support: a fresh directory under the system's temporary directory for
// a phone's home, removed with everything in it at the end.
#ifndef TOLVANGER_PHONE_TESTING_TEMP_HOME_H_
#define TOLVANGER_PHONE_TESTING_TEMP_HOME_H_

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace tolvanger::phone {

class TempHome {
 public:
  TempHome() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "phone-home-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("could not make a temporary directory");
    }
    root_ = pattern;
  }
  ~TempHome() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  // The home inside the directory; not made until a PhoneHome opens it.
  std::string path() const { return root_ + "/home"; }

 private:
  std::string root_;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_TESTING_TEMP_HOME_H_
