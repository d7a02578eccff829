// One journal line read as a sentence a person would say.
//
// The journal writes "<date> <time> <word> key=value ..." with the keys
// sorted and values unescaped, so a value may hold blanks: a blank-split
// piece without "=" belongs to the value before it. `Reading` keeps the raw
// line beside the sentence; a line that is not an event (free text, a short
// line) reads as itself, as one of the service's own lines.
//
// Thread safety: a plain value; the functions are pure.
#ifndef TOLVANGER_APPCORE_READING_H_
#define TOLVANGER_APPCORE_READING_H_

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger::app {

struct Reading {
  std::string clock;  // "HH:MM", empty for a line that is not an event
  std::string raw;    // the line as it came
  std::string plain;  // the sentence
  std::optional<std::string> client;  // the agent client it belongs to
  bool house = true;  // the service's own event, not an agent's request

  // Reads one line of the journal.
  static Reading of(std::string_view line);

  // Prose for a list: "", "a", "a and b", "a, b and c".
  static std::string list(const std::vector<std::string>& items);

  // The event words that belong to an agent's request.
  static bool isAgentVerb(std::string_view verb);
};

}  // namespace tolvanger::app

#endif  // TOLVANGER_APPCORE_READING_H_
