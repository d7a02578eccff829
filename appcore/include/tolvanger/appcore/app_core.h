// The desktop app's core: the model that installs, watches and wires the
// service into agent clients. It grows with the app's issues; for now it only
// names the executable it drives.
//
// Thread safety: constants only.
#ifndef TOLVANGER_APPCORE_APP_CORE_H_
#define TOLVANGER_APPCORE_APP_CORE_H_

#include <string_view>

namespace tolvanger::app {

// The service executable that the app starts and wires into clients.
inline constexpr std::string_view kServiceExecutable = "tolvanger-service";

}  // namespace tolvanger::app

#endif  // TOLVANGER_APPCORE_APP_CORE_H_
