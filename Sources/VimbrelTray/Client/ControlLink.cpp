// SPDX-License-Identifier: Apache-2.0
#include "Client/ControlLink.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <QFileInfo>
#include <QPointer>
#include <QSocketNotifier>
#include <QTimerEvent>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

#include "Say.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

constexpr int retryMilliseconds = 3000;
/// Longer than any method takes: the doctor tries the helper out, reports walk years of usage.
constexpr qint64 answerMilliseconds = 20000;
/// Twice what the application itself accepts in one line; a peer that sends more is not the application.
constexpr std::size_t mostLineBytes = 16U << 20U;

}  // namespace

struct ControlLink::Call {
  QPointer<QObject> context;
  Handler handler;
  qint64 deadline = 0;
};

ControlLink::ControlLink(std::string socketPath, QObject* parent)
    : QObject(parent), path_(std::move(socketPath)) {
  clock_.start();
  connect(&directory_, &QFileSystemWatcher::directoryChanged, this, [this] {
    if (!socket_) tryToConnect();
  });
}

ControlLink::~ControlLink() = default;

void ControlLink::start() { tryToConnect(); }

void ControlLink::tryToConnect() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  bool isOpen = socket && path_.size() < sizeof address.sun_path;
  if (isOpen) {
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
    // A full backlog counts as nobody there: waiting for it would block.
    isOpen = ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  if (!isOpen) {
    watchDirectory();
    if (!retry_.isActive()) retry_.start(retryMilliseconds, Qt::CoarseTimer, this);
    if (!wasAnnounced_) {
      wasAnnounced_ = true;
      Q_EMIT disconnected();
    }
    return;
  }
  retry_.stop();
  wasAnnounced_ = false;
  socket_ = std::move(socket);
  readable_ = std::make_unique<QSocketNotifier>(socket_.get(), QSocketNotifier::Read);
  writable_ = std::make_unique<QSocketNotifier>(socket_.get(), QSocketNotifier::Write);
  writable_->setEnabled(false);
  connect(readable_.get(), &QSocketNotifier::activated, this, &ControlLink::readSome);
  connect(writable_.get(), &QSocketNotifier::activated, this, &ControlLink::writeSome);
  call("subscribe", json::object(), this, [](const Answer&) {});
}

/// The directory appears with the first start of the application; until then the timer alone looks.
void ControlLink::watchDirectory() {
  const auto directory = QFileInfo(QString::fromStdString(path_)).path();
  if (directory_.directories().isEmpty() && QFileInfo::exists(directory)) directory_.addPath(directory);
}

void ControlLink::call(const std::string& method, const json& params, QObject* context, Handler handler) {
  if (!socket_) {
    QMetaObject::invokeMethod(
        context,
        [handler = std::move(handler)] {
          handler(std::unexpected(tr("Vimbrel is not running").toStdString()));
        },
        Qt::QueuedConnection);
    return;
  }
  const auto id = ++lastId_;
  calls_.emplace(id, Call{context, std::move(handler), clock_.elapsed() + answerMilliseconds});
  if (!deadlines_.isActive()) deadlines_.start(1000, Qt::CoarseTimer, this);
  outgoing_ += json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}}.dump(
                   -1, ' ', false, json::error_handler_t::replace) +
               '\n';
  writeSome();
}

void ControlLink::writeSome() {
  while (socket_ && !outgoing_.empty()) {
    const auto written = ::send(socket_.get(), outgoing_.data(), outgoing_.size(), MSG_NOSIGNAL);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    // What went wrong shows when reading, where what the application has said before is still taken.
    if (written < 0) return;
    outgoing_.erase(0, static_cast<std::size_t>(written));
  }
  if (writable_) writable_->setEnabled(!outgoing_.empty());
}

void ControlLink::readSome() {
  char buffer[65536];
  for (;;) {
    const auto count = ::recv(socket_.get(), buffer, sizeof buffer, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (count <= 0 || incoming_.size() > mostLineBytes) return close();
    incoming_.append(buffer, static_cast<std::size_t>(count));
    if (static_cast<std::size_t>(count) < sizeof buffer) break;
  }
  // Handlers may close the connection; what is handled must not depend on it.
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (auto end = incoming_.find('\n'); end != incoming_.npos; end = incoming_.find('\n', begin)) {
    lines.push_back(incoming_.substr(begin, end - begin));
    begin = end + 1;
  }
  incoming_.erase(0, begin);
  for (const auto& line : lines) handleLine(line);
}

void ControlLink::handleLine(std::string_view line) {
  const auto message = json::parse(line, nullptr, false);
  if (!message.is_object()) return;
  if (message.value("method", json()) == "state") {
    if (const auto params = message.find("params"); params != message.end()) Q_EMIT stateReceived(*params);
    return;
  }
  const auto id = message.find("id");
  if (id == message.end() || !id->is_number_integer()) return;
  auto found = calls_.extract(id->get<std::int64_t>());
  if (found.empty() || !found.mapped().context) return;
  if (const auto result = message.find("result"); result != message.end()) {
    return found.mapped().handler(*result);
  }
  std::string reason = tr("Vimbrel gave an answer that cannot be read").toStdString();
  if (const auto error = message.find("error"); error != message.end() && error->is_object()) {
    if (const auto text = error->find("message"); text != error->end() && text->is_string()) {
      reason = retell(text->get<std::string>());
    }
  }
  found.mapped().handler(std::unexpected(reason));
}

void ControlLink::close() {
  readable_.reset();
  writable_.reset();
  socket_.reset();
  incoming_.clear();
  outgoing_.clear();
  deadlines_.stop();
  auto unanswered = std::move(calls_);
  calls_.clear();
  wasAnnounced_ = true;
  Q_EMIT disconnected();
  for (auto& [id, each] : unanswered) {
    if (each.context) each.handler(std::unexpected(tr("Vimbrel was stopped").toStdString()));
  }
  // It may be a restart: the next one is often there at once.
  watchDirectory();
  retry_.start(200, Qt::CoarseTimer, this);
}

void ControlLink::timerEvent(QTimerEvent* event) {
  if (event->timerId() == retry_.timerId()) {
    retry_.start(retryMilliseconds, Qt::CoarseTimer, this);
    return tryToConnect();
  }
  if (event->timerId() != deadlines_.timerId()) return;
  std::vector<Call> late;
  for (auto each = calls_.begin(); each != calls_.end();) {
    if (each->second.deadline > clock_.elapsed()) {
      ++each;
    } else {
      late.push_back(std::move(each->second));
      each = calls_.erase(each);
    }
  }
  if (calls_.empty()) deadlines_.stop();
  for (auto& each : late) {
    if (each.context) each.handler(std::unexpected(tr("Vimbrel does not answer").toStdString()));
  }
}

}  // namespace vimbrel::desktop
