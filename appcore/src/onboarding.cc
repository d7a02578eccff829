#include "tolvanger/appcore/onboarding.h"

#include <array>
#include <utility>

namespace tolvanger::app {

namespace {
using Step = Onboarding::Step;
constexpr std::array<std::pair<Step, std::string_view>, 5> kNames = {{
    {Step::welcome, "welcome"},
    {Step::pair, "pair"},
    {Step::secret, "secret"},
    {Step::test, "test"},
    {Step::done, "done"},
}};
}  // namespace

std::string_view Onboarding::name(Step step) {
  for (const auto& [s, n] : kNames) {
    if (s == step) return n;
  }
  return "done";
}

std::optional<Onboarding::Step> Onboarding::stepNamed(std::string_view name) {
  for (const auto& [s, n] : kNames) {
    if (n == name) return s;
  }
  return std::nullopt;
}

bool Onboarding::canContinue(const Facts& facts) const {
  switch (step_) {
    case Step::pair:
      return facts.paired;
    case Step::secret:
      return facts.secrets >= 1;
    case Step::test:
      return facts.proved;
    case Step::welcome:
    case Step::done:
      return true;
  }
  return false;
}

Onboarding::Step Onboarding::after(Step step) const {
  if (step == Step::pair && mode_ == Mode::anotherPhone) return Step::done;
  switch (step) {
    case Step::welcome:
      return Step::pair;
    case Step::pair:
      return Step::secret;
    case Step::secret:
      return Step::test;
    case Step::test:
    case Step::done:
      return Step::done;
  }
  return Step::done;
}

bool Onboarding::advance(const Facts& facts) {
  if (step_ == Step::done || !canContinue(facts)) return false;
  step_ = after(step_);
  return true;
}

bool Onboarding::skip() {
  if (mode_ != Mode::firstRun) return false;
  if (step_ != Step::secret && step_ != Step::test) return false;
  skipped_.insert(step_);
  step_ = step_ == Step::secret ? Step::test : Step::done;
  return true;
}

}  // namespace tolvanger::app
