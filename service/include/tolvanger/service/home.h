// The service's private directory and the one way a file in it is replaced.
//
// `Home` is a value holding one path; it keeps no state of its own and is
// passed by value to everything that owns a file. Every file it writes is
// written under a scratch name, given mode 0600 and renamed into place; the
// directory itself has mode 0700.
//
// Thread safety: a `Home` is immutable. Its operations touch only the file
// system; callers that write the same file from several threads serialise
// those writes themselves.
#ifndef TOLVANGER_SERVICE_HOME_H_
#define TOLVANGER_SERVICE_HOME_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"

namespace tolvanger::service {

class Home {
 public:
  // The environment variable that names a home other than the standard one.
  static constexpr std::string_view environmentKey = "TOLVANGER_HOME";

  // The home named by TOLVANGER_HOME (an empty value counts as unset), else
  // the user's application data directory (the user's home directory where
  // there is none) plus "Tolvanger". Throws ServiceError::internalFailure
  // when the system names neither directory.
  static Home standard();

  // Wraps a directory, used as given; nothing is checked or made.
  explicit Home(std::string path);

  const std::string& path() const { return path_; }

  // Makes the directory, with any missing parents, or if it exists sets its
  // mode; either way it ends with mode 0700. Throws std::system_error whose
  // text names the path when that fails or the path is not a directory.
  Home ensure() const;

  // The path of `name` inside the home. `name` may hold a subdirectory.
  std::string file(std::string_view name) const;

  // The agent socket's file name, and its path in this home.
  static constexpr std::string_view kSocketFile = "tolvanger.sock";
  std::string socketPath() const { return file(kSocketFile); }

  // The whole content of `name`; nothing on any failure, absence included.
  std::optional<std::string> read(std::string_view name) const;

  // The last `maxBytes` of `name`, starting after the first line feed in
  // that window when the window does not reach the file's start, so that no
  // line is cut; the whole file when it is smaller. Nothing on any failure.
  std::optional<std::string> readTail(std::string_view name,
                                      size_t maxBytes) const;

  // Replaces `name` whole: the data goes to "<name>.tmp" (mode 0600, synced),
  // which is then renamed over the target. Throws std::system_error naming
  // the file if the scratch file cannot be written or the rename fails; the
  // target is then untouched and the scratch file removed.
  void writeAtomically(std::string_view data, std::string_view name) const;
  void writeAtomically(ByteView data, std::string_view name) const;

  // Appends `line` and a newline to `name`, creating the file through
  // writeAtomically when it does not exist yet. The line reaches the file
  // whole or not at all: a short write is cut back, and a file whose last
  // line was torn before gets a newline first. Never throws; returns whether
  // the line was written. Callers serialise appends to one file.
  bool appendLine(std::string_view name, std::string_view line) const;
  // The same for several lines in one write: all of them or none. True for
  // an empty list.
  bool appendLines(std::string_view name,
                   const std::vector<std::string>& lines) const;

  bool operator==(const Home&) const = default;

 private:
  // `bytes` end with a newline.
  bool appendBytes(std::string_view name, std::string_view bytes) const;

  std::string path_;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_HOME_H_
