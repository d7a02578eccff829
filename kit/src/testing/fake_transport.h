// Test support: an HTTP transport that records each call and answers it
// through a handler, so the phone's clients can be driven without a network.
#ifndef TOLVANGER_KIT_TESTING_FAKE_TRANSPORT_H_
#define TOLVANGER_KIT_TESTING_FAKE_TRANSPORT_H_

#include <functional>
#include <utility>
#include <vector>

#include "tolvanger/kit/phone_client.h"

namespace tolvanger {

class FakeTransport : public HTTPTransport {
 public:
  explicit FakeTransport(std::function<HTTPAnswer(const HTTPCall&)> handler)
      : handler_(std::move(handler)) {}
  HTTPAnswer send(const HTTPCall& call) override {
    calls.push_back(call);
    return handler_(call);
  }
  std::vector<HTTPCall> calls;

 private:
  std::function<HTTPAnswer(const HTTPCall&)> handler_;
};

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_TESTING_FAKE_TRANSPORT_H_
