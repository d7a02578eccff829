// The one line that people see for a request in lists, such as
// `http.request · sheets — read this month's invoice rows`.
//
// Thread safety: pure functions; safe from any thread.
#ifndef TOLVANGER_KIT_SUMMARY_H_
#define TOLVANGER_KIT_SUMMARY_H_

#include <string>
#include <string_view>

#include "tolvanger/kit/fields.h"

namespace tolvanger::Summary {

// The operation; then "· " and the text field `credential` if there is one;
// then "— " and the first 80 user-perceived characters of the text field
// `reason` if there is one; joined by single blanks. Fields of another case
// than text are left out.
std::string of(std::string_view operation, const Fields& fields);

}  // namespace tolvanger::Summary

#endif  // TOLVANGER_KIT_SUMMARY_H_
