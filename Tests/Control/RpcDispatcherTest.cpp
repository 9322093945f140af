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

TEST(RpcDispatcher, answersEachKindOfRequestWithItsGoldenLine) {
  const auto error = [](const char* id, int code, const char* message) {
    return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message + R"("},"id":)" + id +
           R"(,"jsonrpc":"2.0"})";
  };
  const std::string depth(200000, '[');
  const struct {
    std::string request;
    std::string answer;
  } cases[] = {
      {R"({"jsonrpc":"2.0","id":1,"method":"echo","params":{"a":[1]}})",
       R"({"id":1,"jsonrpc":"2.0","result":{"a":[1]}})"},
      {R"({"jsonrpc":"2.0","id":"x","method":"echo"})", R"({"id":"x","jsonrpc":"2.0","result":{}})"},
      {R"({"jsonrpc":"2.0","id":null,"method":"echo"})", R"({"id":null,"jsonrpc":"2.0","result":{}})"},
      {R"({"jsonrpc":"2.0","id":1,"method":"bytes"})",
       "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":\"a\uFFFD\"}"},
      {R"({"jsonrpc":"2.0","id":1,"method":"fail"})", error("1", -32000, "the disk is full")},
      {R"({"jsonrpc":"2.0","id":1,"method":"forget"})",
       error("1", -32603, "the request was dropped unanswered")},
      // Handlers that trust the types of their parameters.
      {R"({"jsonrpc":"2.0","id":1,"method":"number","params":{"n":"x"}})",
       error("1", -32602, "a parameter has the wrong type")},
      {R"({"jsonrpc":"2.0","id":1,"method":"at"})",
       error("1", -32603, "[json.exception.out_of_range.403] key 'n' not found")},
      {R"({"jsonrpc":"2.0","id":1,"method":"laterNumber","params":{"n":"x"}})",
       error("1", -32603, "the request was dropped unanswered")},
      {R"({"jsonrpc":"2.0","method":"number","params":{"n":[]}})", ""},
      // Notifications get no answer, whatever becomes of them.
      {R"({"jsonrpc":"2.0","method":"echo"})", ""},
      {R"({"jsonrpc":"2.0","method":"fail"})", ""},
      {R"({"jsonrpc":"2.0","method":"nothing"})", ""},
      {"hello", error("null", -32700, "not valid JSON")},
      {"{\"jsonrpc\":\"2.0\"", error("null", -32700, "not valid JSON")},
      {"\"\xff\"", error("null", -32700, "not valid JSON")},
      {depth, error("null", -32700, "not valid JSON")},
      {"[]", error("null", -32600, "batches are not supported: send one request a line")},
      {"7", error("null", -32600, "not a JSON object")},
      {R"({"id":1,"method":"echo"})", error("1", -32600, R"(\"jsonrpc\" must be \"2.0\")")},
      {R"({"jsonrpc":"2.0","id":{},"method":"echo"})",
       error("null", -32600, R"(\"id\" must be a string, a number or null)")},
      {R"({"jsonrpc":"2.0","id":1,"method":5})", error("1", -32600, R"(\"method\" must be a string)")},
      {R"({"jsonrpc":"2.0","id":1,"method":"ECHO"})", error("1", -32601, R"(there is no method \"ECHO\")")},
      {R"({"jsonrpc":"2.0","id":1,"method":"echo","params":[1]})",
       error("1", -32602, R"(\"params\" must be an object)")},
  };
  const auto dispatcher = withMethods();
  for (const auto& each : cases) {
    EXPECT_EQ(answerOf(dispatcher, each.request), each.answer) << each.request.substr(0, 80);
  }
}

}  // namespace
}  // namespace vimbrel
