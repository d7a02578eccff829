// Test support: an HTTP transport that records each call and answers it
// through a handler, so the phone's clients can be driven without a network.
#ifndef TOLVANGER_PHONE_TESTING_FAKE_TRANSPORT_H_
#define TOLVANGER_PHONE_TESTING_FAKE_TRANSPORT_H_

#include <functional>
#include <utility>
#include <vector>

#include "tolvanger/phone/phone_client.h"

namespace tolvanger::phone {

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

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_TESTING_FAKE_TRANSPORT_H_
