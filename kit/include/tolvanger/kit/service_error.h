// The one failure type of the service, shared with the phone's code.
//
// A `ServiceError` carries one sentence and nothing else: `what()` is the
// sentence as it reaches the other side, with no prefix or case name.
// `refused` is for what the caller did or asked; `internalFailure` for what
// went wrong inside.
//
// Thread safety: immutable after construction.
#ifndef TOLVANGER_KIT_SERVICE_ERROR_H_
#define TOLVANGER_KIT_SERVICE_ERROR_H_

#include <stdexcept>
#include <string>

namespace tolvanger {

class ServiceError : public std::runtime_error {
 public:
  enum class Kind { kRefused, kInternalFailure };

  static ServiceError refused(std::string sentence) {
    return ServiceError(Kind::kRefused, std::move(sentence));
  }
  static ServiceError internalFailure(std::string sentence) {
    return ServiceError(Kind::kInternalFailure, std::move(sentence));
  }

  Kind kind() const { return kind_; }
  bool isRefused() const { return kind_ == Kind::kRefused; }

 private:
  ServiceError(Kind kind, std::string sentence)
      : std::runtime_error(std::move(sentence)), kind_(kind) {}
  Kind kind_;
};

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_SERVICE_ERROR_H_
