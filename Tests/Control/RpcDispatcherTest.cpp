// SPDX-License-Identifier: Apache-2.0
#include "Control/RpcDispatcher.h"

#include <gtest/gtest.h>

#include <optional>

#include "Control/RpcResult.h"

namespace vimbrel {
namespace {

using nlohmann::json;

struct NoPeer final : RpcPeer {
  void subscribe() override {}
  void unsubscribe() override {}
};

RpcDispatcher withMethods() {
  RpcDispatcher dispatcher;
  dispatcher.add("echo", [](const json& params) -> RpcResult { return params; });
  dispatcher.add("bytes", [](const json&) -> RpcResult { return json("a\xff"); });
  dispatcher.add("fail", [](const json&) -> RpcResult {
    return std::unexpected(RpcError{RpcFault::operationFailed, "the disk is full"});
  });
  dispatcher.add("number", [](const json& params) -> RpcResult { return params.value("n", 0); });
  dispatcher.addForPeer("at", [](const json& params, RpcPeer&) -> RpcResult { return params.at("n"); });
  dispatcher.addLater("forget", [](const json&, RpcReply) {});
  dispatcher.addLater("laterNumber", [](const json& params, RpcReply reply) {
    reply(RpcResult(json(params.value("n", 0))));
  });
  return dispatcher;
}

std::optional<std::string> answerOf(const RpcDispatcher& dispatcher, std::string_view request) {
  NoPeer peer;
  std::optional<std::string> given;
  dispatcher.handle(request, peer, [&](std::string line) {
    EXPECT_FALSE(given) << "answered twice";
    given = std::move(line);
  });
  return given;
}

std::string call(const std::string& method, const std::string& more = "", const std::string& id = "1") {
  return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":")" + method + "\"" + more + "}";
}

std::string result(const std::string& text, const std::string& id = "1") {
  return R"({"id":)" + id + R"(,"jsonrpc":"2.0","result":)" + text + "}";
}

std::string error(const std::string& id, int code, const std::string& message) {
  return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message + R"("},"id":)" + id +
         R"(,"jsonrpc":"2.0"})";
}

TEST(RpcDispatcher, answersEachKindOfRequestWithItsGoldenLine) {
  const std::pair<std::string, std::string> cases[] = {
      {call("echo", R"(,"params":{"a":[1]})"), result(R"({"a":[1]})")},
      {call("echo", "", R"("x")"), result("{}", R"("x")")},
      {call("echo", "", "null"), result("{}", "null")},
      {call("bytes"), result("\"a\uFFFD\"")},
      {call("fail"), error("1", -32000, "the disk is full")},
      {call("forget"), error("1", -32603, "the request was dropped unanswered")},
      // Handlers that trust the types of their parameters.
      {call("number", R"(,"params":{"n":"x"})"), error("1", -32602, "a parameter has the wrong type")},
      {call("at"), error("1", -32603, "[json.exception.out_of_range.403] key 'n' not found")},
      {call("laterNumber", R"(,"params":{"n":"x"})"),
       error("1", -32603, "the request was dropped unanswered")},
      {R"({"jsonrpc":"2.0","method":"number","params":{"n":[]}})", ""},
      // Notifications get no answer, whatever becomes of them.
      {R"({"jsonrpc":"2.0","method":"echo"})", ""},
      {R"({"jsonrpc":"2.0","method":"fail"})", ""},
      {R"({"jsonrpc":"2.0","method":"nothing"})", ""},
      {"hello", error("null", -32700, "not valid JSON")},
      {"{\"jsonrpc\":\"2.0\"", error("null", -32700, "not valid JSON")},
      {"\"\xff\"", error("null", -32700, "not valid JSON")},
      {std::string(200000, '['), error("null", -32700, "not valid JSON")},
      {"[]", error("null", -32600, "batches are not supported: send one request a line")},
      {"7", error("null", -32600, "not a JSON object")},
      {R"({"id":1,"method":"echo"})", error("1", -32600, R"(\"jsonrpc\" must be \"2.0\")")},
      {call("echo", "", "{}"), error("null", -32600, R"(\"id\" must be a string, a number or null)")},
      {R"({"jsonrpc":"2.0","id":1,"method":5})", error("1", -32600, R"(\"method\" must be a string)")},
      {call("ECHO"), error("1", -32601, R"(there is no method \"ECHO\")")},
      {call("echo", R"(,"params":[1])"), error("1", -32602, R"(\"params\" must be an object)")},
  };
  const auto dispatcher = withMethods();
  for (const auto& [request, answer] : cases) {
    EXPECT_EQ(answerOf(dispatcher, request), answer) << request.substr(0, 80);
  }
}

}  // namespace
}  // namespace vimbrel
