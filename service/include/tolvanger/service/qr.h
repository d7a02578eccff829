// The pair link drawn as a QR code for a terminal.
//
// `QR::matrix` encodes text (its bytes, in byte mode, error correction level
// M) with libqrencode. `QR::render` draws a matrix with Unicode half blocks,
// two rows of modules to a line of text, black on bright white, with a quiet
// zone of light modules around it.
//
// Thread safety: pure functions; safe from any thread.
#ifndef TOLVANGER_SERVICE_QR_H_
#define TOLVANGER_SERVICE_QR_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger::service::QR {

// What `render` gives when the text cannot be encoded (it is too long).
inline constexpr std::string_view kCouldNotDraw =
    "(could not draw a QR \u2014 the URL is below)";

// A square of modules, row after row; true is dark.
struct Matrix {
  size_t size = 0;
  std::vector<bool> dark;

  bool at(size_t row, size_t column) const { return dark[row * size + column]; }
};

// The code for `text`; nothing if it cannot be encoded.
std::optional<Matrix> matrix(std::string_view text);

// The code for `text` as terminal text: `quiet` light modules on every side,
// rows taken in pairs ("█" both dark, "▀" upper only, "▄" lower only, a
// blank neither; an odd last row is paired with a light one), each line
// wrapped in ESC "[30;107m" ... ESC "[0m", lines joined by "\n" with none at
// the end. `kCouldNotDraw` if the text cannot be encoded.
std::string render(std::string_view text, size_t quiet = 2);

}  // namespace tolvanger::service::QR

#endif  // TOLVANGER_SERVICE_QR_H_
