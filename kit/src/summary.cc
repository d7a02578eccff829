#include "tolvanger/kit/summary.h"

#include <optional>

#include "tolvanger/kit/text.h"

namespace tolvanger::Summary {

std::string of(std::string_view operation, const Fields& fields) {
  std::string line(operation);
  if (const std::optional<std::string> credential = fields.text("credential")) {
    line += " · ";
    line += *credential;
  }
  if (const std::optional<std::string> reason = fields.text("reason")) {
    line += " — ";
    line += Text::prefix(*reason, 80);
  }
  return line;
}

}  // namespace tolvanger::Summary
