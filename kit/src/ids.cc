#include "tolvanger/kit/ids.h"

namespace tolvanger::Ids {

namespace {
bool isLowerOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}
}  // namespace

bool isID(std::string_view text) {
  if (text.empty() || text.size() > 64 || !isLowerOrDigit(text[0]))
    return false;
  for (char c : text.substr(1)) {
    if (!isLowerOrDigit(c) && c != '-' && c != '.' && c != '_') return false;
  }
  return true;
}

bool isOperation(std::string_view text) {
  return !text.empty() && text[0] >= 'a' && text[0] <= 'z' && isID(text);
}

}  // namespace tolvanger::Ids
