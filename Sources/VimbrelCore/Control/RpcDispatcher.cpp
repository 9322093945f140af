// SPDX-License-Identifier: Apache-2.0
#include "Control/RpcDispatcher.h"

#include <utility>

#include "Control/RpcResult.h"
#include "Support/Sentence.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

using nlohmann::json;

std::string responseLine(const json& id, RpcResult result) {
  json response{{"jsonrpc", "2.0"}, {"id", id}};
  if (result) {
    response["result"] = std::move(*result);
  } else {
    response["error"] = {{"code", static_cast<int>(result.error().fault)},
                         {"message", result.error().message}};
  }
  return rpcText(response);
}

/// A handler that reads a parameter as what it is not gets an exception of the JSON library, which must not
/// reach the loop that serves everybody.
RpcResult guarded(const std::function<RpcResult()>& handler) {
  try {
    return handler();
  } catch (const json::type_error&) {
    return std::unexpected(RpcError{RpcFault::invalidParams, "a parameter has the wrong type"});
  } catch (const json::exception& error) {
    return std::unexpected(RpcError{RpcFault::internalError, error.what()});
  }
}

bool isAllowedId(const json& id) { return id.is_string() || id.is_number() || id.is_null(); }

}  // namespace

RpcReply::RpcReply(Send send) : send_(std::move(send)) {}

RpcReply::RpcReply(RpcReply&& other) noexcept : send_(std::exchange(other.send_, nullptr)) {}

RpcReply::~RpcReply() {
  if (send_)
    send_(std::unexpected(RpcError{RpcFault::internalError, sentence("the request was dropped unanswered")}));
}

void RpcReply::operator()(RpcResult result) {
  if (auto send = std::exchange(send_, nullptr)) send(std::move(result));
}

void RpcDispatcher::add(std::string name, Handler handler) {
  handlers_[std::move(name)] = [handler = std::move(handler)](const json& params, RpcPeer&, RpcReply reply) {
    reply(guarded([&] { return handler(params); }));
  };
}

void RpcDispatcher::addForPeer(std::string name, PeerHandler handler) {
  handlers_[std::move(name)] = [handler = std::move(handler)](const json& params, RpcPeer& peer,
                                                              RpcReply reply) {
    reply(guarded([&] { return handler(params, peer); }));
  };
}

void RpcDispatcher::addLater(std::string name, LaterHandler handler) {
  handlers_[std::move(name)] = [handler = std::move(handler)](const json& params, RpcPeer&, RpcReply reply) {
    // The handler owns the reply: when it throws, dropping the reply answers the peer.
    (void)guarded([&]() -> RpcResult {
      handler(params, std::move(reply));
      return json();
    });
  };
}

std::vector<std::string> RpcDispatcher::methodNames() const {
  std::vector<std::string> names;
  for (const auto& [name, handler] : handlers_) names.push_back(name);
  return names;
}

void RpcDispatcher::handle(std::string_view request, RpcPeer& peer,
                           std::function<void(std::string line)> answer) const {
  const auto refuse = [&answer](const json& id, RpcFault fault, std::string message) {
    answer(responseLine(id, std::unexpected(RpcError{fault, std::move(message)})));
  };
  const auto document = parseJson(request);
  if (!document) return refuse(nullptr, RpcFault::parseError, "not valid JSON");
  if (document->is_array()) {
    return refuse(nullptr, RpcFault::invalidRequest, "batches are not supported: send one request a line");
  }
  if (!document->is_object()) return refuse(nullptr, RpcFault::invalidRequest, "not a JSON object");

  const auto idMember = document->find("id");
  const bool isNotification = idMember == document->end();
  const json id = isNotification ? json(nullptr) : *idMember;
  if (!isAllowedId(id)) {
    return refuse(nullptr, RpcFault::invalidRequest, "\"id\" must be a string, a number or null");
  }
  const auto version = document->find("jsonrpc");
  if (version == document->end() || *version != "2.0") {
    return refuse(id, RpcFault::invalidRequest, "\"jsonrpc\" must be \"2.0\"");
  }
  const auto method = document->find("method");
  if (method == document->end() || !method->is_string()) {
    return refuse(id, RpcFault::invalidRequest, "\"method\" must be a string");
  }

  RpcReply reply([isNotification, id, answer = std::move(answer)](RpcResult result) {
    answer(isNotification ? std::string{} : responseLine(id, std::move(result)));
  });
  const auto handler = handlers_.find(method->get_ref<const std::string&>());
  if (handler == handlers_.end()) {
    return reply(std::unexpected(RpcError{
        RpcFault::methodNotFound, sentence("there is no method \"%1\"", {method->get<std::string>()})}));
  }
  const auto params = document->find("params");
  const json given = params == document->end() ? json::object() : *params;
  if (!given.is_object()) {
    return reply(std::unexpected(RpcError{RpcFault::invalidParams, "\"params\" must be an object"}));
  }
  handler->second(given, peer, std::move(reply));
}

// Texts come from file names, arguments and hooks: what is not UTF-8 must not stop the answer.
std::string rpcText(const json& document) {
  return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string rpcNotificationLine(std::string_view method, std::string_view params) {
  std::string line = R"({"jsonrpc":"2.0","method":)" + rpcText(method) + R"(,"params":)";
  line.reserve(line.size() + params.size() + 1);
  return line.append(params).append("}");
}

std::string rpcErrorLine(const RpcError& error) { return responseLine(nullptr, std::unexpected(error)); }

}  // namespace vimbrel
