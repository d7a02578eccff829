// The MCP server an agent client starts: JSON-RPC 2.0 over standard input
// and output, one JSON object per line, offering four tools that turn into
// `Gate` calls. The tool descriptions are the only instruction the model on
// the other end receives, so their words are fixed here.
//
// The server keeps no state of its own: each line is answered from the line
// alone and whatever the gate returns.
//
// Thread safety: one thread reads, calls and writes. A tool call blocks the
// server until the gate returns, which may take minutes; later lines wait in
// the input meanwhile. The gate must outlive the server.
#ifndef TOLVANGER_SERVICE_MCP_SERVER_H_
#define TOLVANGER_SERVICE_MCP_SERVER_H_

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tolvanger/service/gate.h"

namespace tolvanger::service {

class MCPServer {
 public:
  // The protocol version answered when the client names none.
  static constexpr std::string_view protocolVersion = "2025-06-18";
  // The longest input line read; a longer one is answered with a parse
  // error and dropped, so a runaway client cannot make the server hold
  // unbounded input.
  static constexpr size_t maxLine = 4u << 20;
  // The deepest nesting of arrays and objects read from a line.
  static constexpr size_t maxDepth = 128;
  // The most characters of an upstream body handed to the model.
  static constexpr size_t maxBodyCharacters = 16000;

  explicit MCPServer(Gate& gate) : gate_(gate) {}

  // The four tools with their descriptions and input schemas, in order.
  static const nlohmann::json& tools();

  // Reads `inFd` until end of input (or a read error), answering each line
  // ended by a line feed and writing each answer plus a line feed to
  // `outFd`. Bytes after the last line feed are dropped at the end. Returns
  // early when the output cannot be written. Neither descriptor is closed.
  void serve(int inFd, int outFd);

  // One line in (without its line feed; a trailing carriage return is
  // ignored), one line out, or nothing for a notification. The answer is
  // JSON with sorted keys and no line feed. Never throws.
  std::optional<std::string> answer(std::string_view line);

  // The response to one parsed message, or nothing for a notification.
  std::optional<nlohmann::json> handle(const nlohmann::json& object);

  // Runs a `tools/call` and gives the tool result. Problems are tool results
  // with `isError` true, never exceptions.
  nlohmann::json call(const nlohmann::json& params);

  // The tool result `{"content": [{"type": "text", "text": ...}],
  // "isError": ...}`.
  static nlohmann::json said(const std::string& text, bool failed);

 private:
  nlohmann::json requestApproval(const nlohmann::json& arguments);
  nlohmann::json authenticatedRequest(const nlohmann::json& arguments);
  nlohmann::json listCredentials();
  nlohmann::json requestSignIn(const nlohmann::json& arguments);

  Gate& gate_;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_MCP_SERVER_H_
