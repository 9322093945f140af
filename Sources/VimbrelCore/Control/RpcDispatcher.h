// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Control/RpcError.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// The connection that a request came from, as a handler sees it.
class RpcPeer {
 public:
  virtual ~RpcPeer() = default;
  /// Streams the published state to this peer from now on, beginning with the state as it is.
  virtual void subscribe() = 0;
  virtual void unsubscribe() = 0;
  /// Keeps the token until the connection ends, however it ends; such a connection may be silent for as long
  /// as it likes.
  void keep(Token token) { kept_.push_back(std::move(token)); }

 protected:
  std::vector<Token> kept_;
};

/// The answer to one request, given once, at any later time. One that is dropped unanswered answers
/// `internalError`, so that no peer waits in vain. Main queue.
class RpcReply {
 public:
  using Send = std::function<void(RpcResult)>;
  explicit RpcReply(Send send);
  RpcReply(RpcReply&& other) noexcept;
  RpcReply& operator=(RpcReply&&) = delete;
  ~RpcReply();
  void operator()(RpcResult result);

 private:
  Send send_;
};

/// JSON-RPC 2.0 without a transport: the methods by name, and what becomes of one request. Batches are
/// refused: a peer sends one request a line. An exception of the JSON library in a handler answers that one
/// request with an error. Main queue.
class RpcDispatcher {
 public:
  /// `params` is an object, empty when the request had none.
  using Handler = std::function<RpcResult(const nlohmann::json& params)>;
  using PeerHandler = std::function<RpcResult(const nlohmann::json& params, RpcPeer& peer)>;
  using LaterHandler = std::function<void(const nlohmann::json& params, RpcReply reply)>;

  void add(std::string name, Handler handler);
  void addForPeer(std::string name, PeerHandler handler);
  /// For a method that answers later.
  void addLater(std::string name, LaterHandler handler);

  [[nodiscard]] std::vector<std::string> methodNames() const;

  /// Carries out one request, given as its text, and hands `answer` the response's line without its end; an
  /// empty line when there is nothing to answer (a notification). `answer` is called once, inline or later.
  void handle(std::string_view request, RpcPeer& peer, std::function<void(std::string line)> answer) const;

 private:
  using AnyHandler = std::function<void(const nlohmann::json&, RpcPeer&, RpcReply)>;
  std::map<std::string, AnyHandler, std::less<>> handlers_;
};

/// A document as the protocol writes it.
[[nodiscard]] std::string rpcText(const nlohmann::json& document);
/// Lines of the protocol, without their end. `params` is the text of an object.
[[nodiscard]] std::string rpcNotificationLine(std::string_view method, std::string_view params);
[[nodiscard]] std::string rpcErrorLine(const RpcError& error);

}  // namespace vimbrel
