// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/PortalKeyShortcut.h"

#include <optional>
#include <utility>

#include "Support/Sentence.h"

namespace vimbrel {
namespace {

constexpr const char* portal = "org.freedesktop.portal.Desktop";
constexpr const char* objectPath = "/org/freedesktop/portal/desktop";
constexpr const char* shortcuts = "org.freedesktop.portal.GlobalShortcuts";
constexpr const char* shortcutId = "toggle";
// A person answers the second question, in their own time.
constexpr std::chrono::milliseconds patience{5000};

BusMethod method(const char* member) { return {portal, objectPath, shortcuts, member, true}; }

}  // namespace

/// One watch: the portal's session, and what was asked of it. A request is answered by a signal of an object
/// that its reply names; the answer may overtake the reply.
struct PortalKeyShortcut::Session : std::enable_shared_from_this<Session> {
  Session(std::shared_ptr<BusConnection> connection, std::shared_ptr<unsigned> count,
          std::function<void()> handler, std::function<void(const std::string&)> refusal)
      : bus(std::move(connection)),
        sessions(std::move(count)),
        pressed(std::move(handler)),
        refused(std::move(refusal)) {}

  const std::shared_ptr<BusConnection> bus;
  const std::shared_ptr<unsigned> sessions;  ///< how many were asked for so far
  const std::function<void()> pressed;
  const std::function<void(const std::string&)> refused;
  enum class Step { none, creating, binding, bound } step = Step::none;
  std::string token;  ///< of what is asked now
  std::string session;
  int generation = 0;  ///< of the portal's process
  Token owner;
  Token responses;
  Token activations;

  void follow() {
    responses = bus->onSignalWith({portal, "", "org.freedesktop.portal.Request", "Response"},
                                  [weak = weak_from_this()](BusMessage message) {
                                    if (const auto self = weak.lock()) self->answered(message);
                                  });
    activations = bus->onSignalWith({portal, objectPath, shortcuts, "Activated"},
                                    [weak = weak_from_this()](BusMessage message) {
                                      const auto self = weak.lock();
                                      if (!self || message.readObjectPath() != self->session) return;
                                      if (message.readString() == shortcutId) self->pressed();
                                    });
    owner = bus->watchName(portal, [weak = weak_from_this()](const std::string& name) {
      const auto self = weak.lock();
      if (!self) return;
      ++self->generation;
      self->session.clear();
      self->step = Step::none;
      if (!name.empty()) self->createSession();
    });
    // One that nobody needed so far is started by the first call.
    if (bus->ownerOf(portal) == "") createSession();
  }

  void createSession() {
    step = Step::creating;
    // A name of its own: the portal takes its time to end the session before this one.
    token = "vimbrel" + std::to_string(++*sessions);
    request(method("CreateSession"),
            {BusOptions{{"handle_token", token + "_create"}, {"session_handle_token", token}}});
  }

  void bind() {
    step = Step::binding;
    const BusNamedOptions wanted{{shortcutId,
                                  {{"description", std::string("Switch Vimbrel's protection on or off")},
                                   {"preferred_trigger", std::string("ALT+LOGO+l")}}}};
    request(method("BindShortcuts"),
            {BusPath{session}, wanted, std::string(), BusOptions{{"handle_token", token + "_bind"}}});
  }

  void request(const BusMethod& call, const std::vector<BusArgument>& arguments) {
    bus->call(
        call, arguments,
        [weak = weak_from_this(), asked = generation](const BusReply& reply) {
          const auto self = weak.lock();
          if (!self || reply) return;
          // A portal that was started by this very call begins anew when its name appears.
          if (asked != self->generation) return;
          self->giveUp(reply.error().isUnknown() ? sentence("the desktop's portal has no global shortcuts")
                                                 : reply.error().message);
        },
        patience);
  }

  void answered(BusMessage& message) {
    // Requests of this connection only come here; their paths end in the tokens that they were given.
    const auto path = message.path();
    const bool isCreation = path.ends_with("/" + token + "_create");
    if (!isCreation && !path.ends_with("/" + token + "_bind")) return;
    const auto code = message.readUnsigned();
    if (!code) return;
    if (*code != 0) {
      return giveUp(*code == 1 ? sentence("the shortcut was declined in the desktop's dialog")
                               : sentence("the desktop's portal refused the shortcut"));
    }
    if (isCreation && step == Step::creating) {
      const auto results = message.readTexts();
      const auto handle = results.find("session_handle");
      if (handle == results.end()) return giveUp(sentence("the desktop's portal answered without a session"));
      session = handle->second;
      bind();
    } else if (!isCreation && step == Step::binding) {
      step = Step::bound;
    }
  }

  void giveUp(const std::string& reason) {
    step = Step::none;
    refused(reason);
  }

  void end() const {
    if (session.empty()) return;
    bus->send({portal, session, "org.freedesktop.portal.Session", "Close"}, {});
  }
};

std::expected<Token, std::string> PortalKeyShortcut::watch(std::function<void()> pressed) {
  if (!bus_->isConnected()) {
    return std::unexpected(sentence("there is no session bus, and so no desktop portal"));
  }
  auto session =
      std::make_shared<Session>(bus_, sessions_, std::move(pressed), [this](const std::string& reason) {
        if (onRefused) onRefused(reason);
      });
  session->follow();
  return Token{[session]() mutable {
    session->end();
    session.reset();
  }};
}

}  // namespace vimbrel
