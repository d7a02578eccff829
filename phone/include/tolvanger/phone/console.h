// The software phone's console: questions for the person and the lines they
// answer with, read from a file descriptor (standard input, or a pipe a
// script writes to).
//
// Input is read one byte at a time with read(2), so that nothing is buffered
// ahead: a credential value on a later line never passes through a buffer
// that cannot be wiped, and another reader of the same descriptor finds the
// rest where it was. A secret line goes straight into wipeable memory, with
// the terminal's echo off while it is typed.
//
// Thread safety: one thread at a time; two readers of one descriptor would
// share its lines between them.
#ifndef TOLVANGER_PHONE_CONSOLE_H_
#define TOLVANGER_PHONE_CONSOLE_H_

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>

#include "tolvanger/kit/bytes.h"

namespace tolvanger::phone {

class Console {
 public:
  // The longest secret line read by default.
  static constexpr size_t kMaxSecret = 64 * 1024;

  // Reads from `input`; questions and the line end after a hidden answer go
  // to `output`.
  Console(int input, std::FILE* output) : input_(input), output_(output) {}

  // Whether a person is at a terminal on the input.
  bool interactive() const;

  // Shows `question` (flushed), only when a person is at the terminal, so
  // that a script's output holds no questions.
  void ask(const std::string& question) const;

  // One line without its line end (and a carriage return before it);
  // nothing at the end of input.
  std::optional<std::string> line() const;

  // One line of secret text, as `line` reads it, in wipeable memory; empty
  // at the end of input. Throws Refusal ("That value is longer than this
  // phone will send.") past `maxSize` bytes and a carriage return.
  SecretBytes secretLine(size_t maxSize = kMaxSecret) const;

 private:
  int input_;
  std::FILE* output_;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_CONSOLE_H_
