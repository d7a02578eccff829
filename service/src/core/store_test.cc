#include "tolvanger/service/store.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "testing/full_disk.h"
#include "testing/temp_home.h"
#include "tolvanger/kit/service_error.h"

namespace tolvanger::service {
namespace {

namespace fs = std::filesystem;

constexpr int64_t kGrace = 600;

class StoreTest : public ::testing::Test {
 protected:
  std::unique_ptr<Store> open() {
    return std::make_unique<Store>(home_, kGrace,
                                   [this] { return now_.load(); });
  }

  StoredRequest request(const std::string& id, int64_t issuedAt,
                        int64_t life = 300) {
    StoredRequest r;
    r.id = id;
    r.operation = "mail.send";
    r.issuedAt = issuedAt;
    r.expiresAt = issuedAt + life;
    return r;
  }

  // The sentence a refusal carries, or "" when the call went through.
  template <typename F>
  static std::string refusal(F&& call) {
    try {
      call();
    } catch (const ServiceError& e) {
      EXPECT_TRUE(e.isRefused());
      return e.what();
    }
    return "";
  }

  TempHome dir_;
  Home home_ = dir_.home();
  std::atomic<int64_t> now_{1000};
};

TEST_F(StoreTest, StateMachineAndItsSentences) {
  auto store = open();
  StoredRequest a = request("ra", 1000);
  a.deviceID = "phone-1";
  store->put(a);
  store->put(request("rb", 990));
  store->put(request("rc", 995));
  store->put(request("rc", 995));  // filed again, replaced: still one

  auto pending = store->pending();
  ASSERT_EQ(pending.size(), 3u);
  EXPECT_EQ(store->pendingCount(), 3u);
  EXPECT_EQ(pending[0].id, "rb");
  EXPECT_EQ(pending[1].id, "rc");
  EXPECT_EQ(pending[2].id, "ra");

  EXPECT_EQ(refusal([&] { store->take("ra"); }), "that request is pending");
  EXPECT_EQ(refusal([&] { store->decide("rx", RequestState::kApproved); }),
            "no such request");
  EXPECT_EQ(refusal([&] { store->take("rx"); }), "no such request");

  now_ = 1010;
  StoredRequest approved = store->decide("ra", RequestState::kApproved);
  EXPECT_EQ(approved.state, RequestState::kApproved);
  EXPECT_EQ(approved.deviceID, "phone-1");  // kept when none is given
  EXPECT_EQ(approved.decidedAt, 1010);
  EXPECT_EQ(refusal([&] { store->decide("ra", RequestState::kDenied, "p2"); }),
            "that request was already approved");

  EXPECT_EQ(store->take("ra").state, RequestState::kTaken);
  EXPECT_EQ(store->get("ra")->state, RequestState::kTaken);
  EXPECT_EQ(refusal([&] { store->take("ra"); }),
            "that approval was already spent");

  EXPECT_EQ(store->decide("rb", RequestState::kDenied, "p2").deviceID, "p2");
  EXPECT_EQ(refusal([&] { store->take("rb"); }), "that request is denied");
  store->decide("rc", RequestState::kCancelled);
  EXPECT_EQ(refusal([&] { store->decide("rc", RequestState::kApproved); }),
            "that request was already cancelled");
  EXPECT_TRUE(store->pending().empty());
  EXPECT_EQ(store->pendingCount(), 0u);
}

TEST_F(StoreTest, DeadlinesExpireAndForget) {
  auto store = open();
  store->put(request("ra", 1000));  // expires at 1300
  store->put(request("rb", 1000));
  store->decide("rb", RequestState::kApproved);

  // Overdue from the very second of expiresAt.
  now_ = 1300;
  StoredRequest expired = *store->get("ra");
  EXPECT_EQ(expired.state, RequestState::kExpired);
  EXPECT_EQ(expired.decidedAt, 1300);
  EXPECT_TRUE(store->wasDecided("ra"));
  EXPECT_EQ(refusal([&] { store->decide("ra", RequestState::kApproved); }),
            "that request was already expired");

  // An approval is good until expiresAt + grace.
  now_ = 1300 + kGrace;
  EXPECT_EQ(refusal([&] { store->take("rb"); }), "that approval went stale");
  EXPECT_EQ(store->get("rb")->state, RequestState::kExpired);

  // Decided requests leave memory after grace plus an hour, ids stay decided.
  now_ = 1300 + kGrace + 3600;
  EXPECT_TRUE(store->get("ra").has_value());
  now_ += 1;
  EXPECT_FALSE(store->get("ra").has_value());
  EXPECT_FALSE(store->get("rb").has_value());  // decided at 1000
  EXPECT_TRUE(store->wasDecided("ra"));

  // Sweeps are skipped until something falls due; a request filed later
  // with a nearer deadline still expires on its second.
  store->put(request("rc", now_, 600));
  store->get("rc");
  store->put(request("rd", now_, 120));
  store->put(request("re", now_, 120));
  now_ += 120;
  EXPECT_EQ(refusal([&] { store->decide("re", RequestState::kApproved); }),
            "that request was already expired");
  EXPECT_EQ(store->get("rd")->state, RequestState::kExpired);
  EXPECT_EQ(store->get("rc")->state, RequestState::kPending);
  EXPECT_EQ(store->pendingCount(), 1u);
  now_ += kGrace + 3601;
  EXPECT_FALSE(store->get("re").has_value());
  EXPECT_EQ(store->pendingCount(), 0u);  // rc expired on the way
}

TEST_F(StoreTest, DecidedLogSurvivesAReopen) {
  {
    auto store = open();
    store->put(request("ra", 1000));
    store->put(request("rb", 1000));
    store->decide("rb", RequestState::kDenied);
    store->decide("ra", RequestState::kApproved);
    EXPECT_NE(refusal([&] { store->decide("ra", RequestState::kDenied); }), "");
  }
  struct stat st;
  ASSERT_EQ(stat(home_.file("decided.log").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(home_.read("decided.log"), "rb\nra\n");

  auto reopened = open();
  EXPECT_FALSE(reopened->get("ra").has_value());
  EXPECT_TRUE(reopened->wasDecided("ra"));
  EXPECT_TRUE(reopened->wasDecided("rb"));
  EXPECT_FALSE(reopened->wasDecided("rc"));
  std::string minted = reopened->mint();
  EXPECT_EQ(minted.size(), 17u);
  EXPECT_EQ(minted[0], 'r');

  // Blank lines and a missing final newline still load.
  home_.writeAtomically("\nrx\n\nry", "decided.log");
  auto hand = open();
  EXPECT_TRUE(hand->wasDecided("rx"));
  EXPECT_TRUE(hand->wasDecided("ry"));
  EXPECT_FALSE(hand->wasDecided(""));
}

TEST_F(StoreTest, ADecisionTheLogCannotTakeIsNotTaken) {
  auto store = open();
  store->put(request("ra", 1000));
  store->put(request("rb", 1000, 10));
  {
    FullDisk disk;
    try {
      store->decide("ra", RequestState::kApproved);
      ADD_FAILURE() << "decided with no room to write it down";
    } catch (const ServiceError& e) {
      EXPECT_FALSE(e.isRefused());
      EXPECT_EQ(std::string(e.what()),
                "this Mac could not write the decision down, so it was not "
                "taken; the request is still open");
    }
    EXPECT_EQ(store->get("ra")->state, RequestState::kPending);
    EXPECT_FALSE(store->wasDecided("ra"));
    // Time is not refused: an overdue request expires, and its id waits to
    // be written with the next decision.
    now_ = 1010;
    EXPECT_EQ(store->get("rb")->state, RequestState::kExpired);
    EXPECT_TRUE(store->wasDecided("rb"));
    EXPECT_FALSE(home_.read("decided.log").has_value());
    disk.free(64);
    EXPECT_EQ(store->decide("ra", RequestState::kApproved).state,
              RequestState::kApproved);
  }
  EXPECT_EQ(home_.read("decided.log"), "rb\nra\n");
  auto reopened = open();
  EXPECT_TRUE(reopened->wasDecided("ra"));
  EXPECT_TRUE(reopened->wasDecided("rb"));
}

TEST_F(StoreTest, RacingAnswersLetExactlyOneThrough) {
  auto store = open();
  for (int round = 0; round < 20; ++round) {
    std::string id = "r" + std::to_string(round);
    store->put(request(id, 1000));
    std::atomic<int> wins{0};
    std::vector<std::thread> threads;
    for (auto state : {RequestState::kApproved, RequestState::kDenied,
                       RequestState::kCancelled}) {
      threads.emplace_back([&, state] {
        if (refusal([&] { store->decide(id, state); }).empty()) ++wins;
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(wins.load(), 1);
  }
}

}  // namespace
}  // namespace tolvanger::service
