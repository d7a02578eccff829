// The first-run flow as a small value: which step the person is on, moved on
// by what the service reports (a phone paired, a secret announced, the round
// trip proved) and never by the screen alone. The same flow in the mode
// `anotherPhone` pairs a further phone and ends.
//
// Thread safety: a plain value; copy it or keep it on one thread.
#ifndef TOLVANGER_APPCORE_ONBOARDING_H_
#define TOLVANGER_APPCORE_ONBOARDING_H_

#include <optional>
#include <set>
#include <string_view>

namespace tolvanger::app {

// What the flow may know of the world, worked out at each refresh.
struct Facts {
  bool paired = false;  // at least one phone
  int secrets = 0;      // names the phone has announced
  bool proved = false;  // the round-trip test has passed
};

class Onboarding {
 public:
  enum class Step { welcome, pair, secret, test, done };
  enum class Mode { firstRun, anotherPhone };

  explicit Onboarding(Step step = Step::welcome, Mode mode = Mode::firstRun)
      : mode_(mode), step_(step) {}

  Mode mode() const { return mode_; }
  Step step() const { return step_; }
  const std::set<Step>& skipped() const { return skipped_; }

  // Whether the facts let the person leave the present step.
  bool canContinue(const Facts& facts) const;
  // Moves on when `canContinue` holds and the flow is not done.
  bool advance(const Facts& facts);
  // Skips an optional step (the secret, the round trip) of a first run.
  bool skip();

  bool operator==(const Onboarding&) const = default;

  static std::string_view name(Step step);
  static std::optional<Step> stepNamed(std::string_view name);

 private:
  Step after(Step step) const;

  Mode mode_;
  Step step_;
  std::set<Step> skipped_;
};

}  // namespace tolvanger::app

#endif  // TOLVANGER_APPCORE_ONBOARDING_H_
