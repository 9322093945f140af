// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/CanberraSoundPlayer.h"

#include <canberra.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "Platform/Linux/SharedLibrary.h"

namespace vimbrel {

struct CanberraSoundPlayer::Library {
  SharedLibrary library{"libcanberra.so.0"};
  decltype(::ca_context_create)* const create =
      library.function<decltype(::ca_context_create)>("ca_context_create");
  decltype(::ca_context_destroy)* const destroy =
      library.function<decltype(::ca_context_destroy)>("ca_context_destroy");
  decltype(::ca_context_change_props)* const changeProperties =
      library.function<decltype(::ca_context_change_props)>("ca_context_change_props");
  decltype(::ca_context_play)* const play = library.function<decltype(::ca_context_play)>("ca_context_play");
  ca_context* context = nullptr;

  Library() {
    if (!library || create(&context) != CA_SUCCESS) {
      context = nullptr;
      return;
    }
    changeProperties(context, CA_PROP_APPLICATION_NAME, "Vimbrel", CA_PROP_APPLICATION_ID, "com.vimbrel.app",
                     nullptr);
  }
  ~Library() {
    if (context != nullptr) destroy(context);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
};

CanberraSoundPlayer::CanberraSoundPlayer() = default;
CanberraSoundPlayer::~CanberraSoundPlayer() = default;

bool CanberraSoundPlayer::canBeHeard() {
  const auto exists = [](const std::string& path) { return ::access(path.c_str(), F_OK) == 0; };
  if (std::getenv("PULSE_SERVER") != nullptr || exists("/dev/snd/timer")) return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string directory = runtime == nullptr ? "/run/user/" + std::to_string(::getuid()) : runtime;
  return exists(directory + "/pulse/native") || exists(directory + "/pipewire-0");
}

bool CanberraSoundPlayer::playEvent(const char* event) {
  if (!canBeHeard()) return false;
  if (!library_) library_ = std::make_unique<Library>();
  if (library_->context == nullptr) return false;
  constexpr std::uint32_t anySound = 0;
  // "event": the desktop's own volume, and its switch for event sounds, apply.
  return library_->play(library_->context, anySound, CA_PROP_EVENT_ID, event, CA_PROP_EVENT_DESCRIPTION,
                        "Vimbrel", CA_PROP_MEDIA_ROLE, "event", nullptr) == CA_SUCCESS;
}

bool CanberraSoundPlayer::play(std::string_view name) { return name == "Hero" && playEvent("complete"); }

void CanberraSoundPlayer::beep() { (void)playEvent("bell"); }

}  // namespace vimbrel
