#include "tolvanger/service/qr.h"

#include <qrencode.h>

#include <climits>
#include <memory>

namespace tolvanger::service::QR {

namespace {

struct QRcodeFree {
  void operator()(QRcode* code) const { QRcode_free(code); }
};

}  // namespace

std::optional<Matrix> matrix(std::string_view text) {
  if (text.empty() || text.size() > static_cast<size_t>(INT_MAX)) {
    return std::nullopt;
  }
  std::unique_ptr<QRcode, QRcodeFree> code(QRcode_encodeData(
      static_cast<int>(text.size()),
      reinterpret_cast<const unsigned char*>(text.data()), 0, QR_ECLEVEL_M));
  if (!code || code->width <= 0) return std::nullopt;
  Matrix out;
  out.size = static_cast<size_t>(code->width);
  out.dark.resize(out.size * out.size);
  // Bit 0 of each byte says whether the module is dark; the other bits are
  // the encoder's bookkeeping.
  for (size_t i = 0; i < out.dark.size(); ++i) out.dark[i] = code->data[i] & 1;
  return out;
}

std::string render(std::string_view text, size_t quiet) {
  const auto m = matrix(text);
  if (!m) return std::string(kCouldNotDraw);
  const size_t side = m->size + 2 * quiet;
  auto dark = [&](size_t row, size_t column) {
    if (row < quiet || column < quiet) return false;
    row -= quiet;
    column -= quiet;
    return row < m->size && column < m->size && m->at(row, column);
  };
  std::string out;
  for (size_t row = 0; row < side; row += 2) {
    if (!out.empty()) out += '\n';
    out += "\x1b[30;107m";
    for (size_t column = 0; column < side; ++column) {
      const bool upper = dark(row, column);
      const bool lower = dark(row + 1, column);
      out += upper && lower ? "\u2588"
             : upper        ? "\u2580"
             : lower        ? "\u2584"
                            : " ";
    }
    out += "\x1b[0m";
  }
  return out;
}

}  // namespace tolvanger::service::QR
