// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QBasicTimer>
#include <QElapsedTimer>
#include <QFileSystemWatcher>
#include <QObject>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "Support/Fd.h"

class QSocketNotifier;

namespace vimbrel::desktop {

/// What a call gave: its result, or a sentence for people about why there is none.
using Answer = std::expected<nlohmann::json, std::string>;

/// The desktop's connection to the background process. It never blocks: every call answers later, and every
/// call is answered once, with an error when the connection ends first. While nobody serves the socket it
/// looks again whenever the socket's directory changes, and every few seconds. The interface's thread.
class ControlLink final : public QObject {
  Q_OBJECT

 public:
  explicit ControlLink(std::string socketPath, QObject* parent = nullptr);
  ~ControlLink() override;

  /// Connects and subscribes, now and again whenever the connection is lost.
  void start();
  [[nodiscard]] bool isConnected() const { return static_cast<bool>(socket_); }

  using Handler = std::function<void(const Answer&)>;
  /// Calls a method. `handler` is not called when `context` is gone by then.
  void call(const std::string& method, const nlohmann::json& params, QObject* context, Handler handler);

 Q_SIGNALS:
  /// A state of the stream.
  void stateReceived(const nlohmann::json& state);
  /// The first attempt after `start` failed, or the connection was lost; once each time.
  void disconnected();

 protected:
  void timerEvent(QTimerEvent* event) override;

 private:
  struct Call;

  void tryToConnect();
  void watchDirectory();
  void readSome();
  void writeSome();
  void handleLine(std::string_view line);
  void close();

  const std::string path_;
  Fd socket_;
  std::unique_ptr<QSocketNotifier> readable_;
  std::unique_ptr<QSocketNotifier> writable_;
  std::string incoming_;
  std::string outgoing_;
  std::int64_t lastId_ = 0;
  std::map<std::int64_t, Call> calls_;
  QFileSystemWatcher directory_;
  QBasicTimer retry_;
  QBasicTimer deadlines_;
  QElapsedTimer clock_;
  bool wasAnnounced_ = false;
};

}  // namespace vimbrel::desktop
