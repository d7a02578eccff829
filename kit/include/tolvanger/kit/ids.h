// The grammars of identifiers that come from outside: request, device,
// daemon, nudge and call ids, secret names and operation names.
//
// Thread safety: pure functions.
#ifndef TOLVANGER_KIT_IDS_H_
#define TOLVANGER_KIT_IDS_H_

#include <string_view>

namespace tolvanger::Ids {

// 1 to 64 characters; the first a-z or 0-9, the rest a-z, 0-9, '-', '.', '_'.
bool isID(std::string_view text);

// An id whose first character is a-z.
bool isOperation(std::string_view text);

}  // namespace tolvanger::Ids

#endif  // TOLVANGER_KIT_IDS_H_
