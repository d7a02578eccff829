#include "tolvanger/port/session_events.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

namespace tolvanger::port {
namespace {

constexpr const char* kLogin = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
// How often the loop looks up from the bus to see whether it should stop.
constexpr uint64_t kPollMicros = 200 * 1000;

// Whether `path` is one of the sessions of this process's user, asked of
// logind at the moment the signal came (sessions come and go).
bool isOwnSession(sd_bus* bus, const char* path) {
  if (path == nullptr) return false;
  sd_bus_error error{};  // all empty, as SD_BUS_ERROR_NULL
  sd_bus_message* reply = nullptr;
  bool own = false;
  if (sd_bus_call_method(bus, kLogin, kManagerPath, kManager, "ListSessions",
                         &error, &reply, "") >= 0 &&
      sd_bus_message_enter_container(reply, 'a', "(susso)") > 0) {
    const uid_t me = getuid();
    const char* id = nullptr;
    uint32_t uid = 0;
    const char* user = nullptr;
    const char* seat = nullptr;
    const char* object = nullptr;
    while (sd_bus_message_read(reply, "(susso)", &id, &uid, &user, &seat,
                               &object) > 0) {
      if (uid == me && object != nullptr && std::strcmp(object, path) == 0) {
        own = true;
      }
    }
  }
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  return own;
}

// True when a PropertiesChanged of a session says LockedHint is now true.
bool lockedHintSet(sd_bus_message* m) {
  const char* interface = nullptr;
  if (sd_bus_message_read(m, "s", &interface) < 0) return false;
  if (sd_bus_message_enter_container(m, 'a', "{sv}") <= 0) return false;
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    const char* name = nullptr;
    if (sd_bus_message_read(m, "s", &name) < 0) return false;
    if (name != nullptr && std::strcmp(name, "LockedHint") == 0) {
      int locked = 0;
      if (sd_bus_message_enter_container(m, 'v', "b") <= 0 ||
          sd_bus_message_read(m, "b", &locked) < 0) {
        return false;
      }
      return locked != 0;
    }
    if (sd_bus_message_skip(m, "v") < 0) return false;
    if (sd_bus_message_exit_container(m) < 0) return false;
  }
  return false;
}

}  // namespace

struct SessionEvents::Watch {
  std::atomic<bool> stopping{false};
  std::thread thread;
  const Handler* handler = nullptr;
  sd_bus* bus = nullptr;

  static int onSleep(sd_bus_message* m, void* self, sd_bus_error*) {
    int going = 0;
    if (sd_bus_message_read(m, "b", &going) >= 0 && going != 0) {
      (*static_cast<Watch*>(self)->handler)("sleep");
    }
    return 0;
  }
  static int onLock(sd_bus_message* m, void* self, sd_bus_error*) {
    auto* watch = static_cast<Watch*>(self);
    if (isOwnSession(watch->bus, sd_bus_message_get_path(m))) {
      (*watch->handler)("lock");
    }
    return 0;
  }
  static int onProperties(sd_bus_message* m, void* self, sd_bus_error*) {
    auto* watch = static_cast<Watch*>(self);
    if (lockedHintSet(m) &&
        isOwnSession(watch->bus, sd_bus_message_get_path(m))) {
      (*watch->handler)("lock");
    }
    return 0;
  }
};

SessionEvents::SessionEvents(Handler handler, Note note)
    : handler_(std::move(handler)), note_(std::move(note)) {}

SessionEvents::~SessionEvents() { stop(); }

void SessionEvents::start() {
  if (watch_) return;
  watch_ = std::make_unique<Watch>();
  watch_->handler = &handler_;
  Watch* watch = watch_.get();
  watch->thread = std::thread([this, watch] {
    sd_bus* bus = nullptr;
    // sd-bus reads DBUS_SYSTEM_BUS_ADDRESS, so a test can name a bus of its
    // own.
    if (sd_bus_open_system(&bus) < 0) {
      if (note_) note_("no-system-bus");
      return;
    }
    watch->bus = bus;
    // A bus address that names no bus may only fail at the first call.
    sd_bus_error error{};  // all empty, as SD_BUS_ERROR_NULL
    sd_bus_message* reply = nullptr;
    int owned = 0;
    const int asked = sd_bus_call_method(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus", "NameHasOwner", &error, &reply, "s", kLogin);
    if (asked < 0 || sd_bus_message_read(reply, "b", &owned) < 0) owned = -1;
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    if (owned != 1) {
      if (note_) note_(owned < 0 ? "no-system-bus" : "no-logind");
      sd_bus_flush_close_unref(bus);
      return;
    }
    // The matches name no sender: sd-bus compares a sender locally with the
    // message's unique name, never a well-known one. A signal of these names
    // from another peer can only end allowances early, never keep one.
    const bool matched =
        sd_bus_add_match(bus, nullptr,
                         "type='signal',path='/org/freedesktop/login1',"
                         "interface='org.freedesktop.login1.Manager',"
                         "member='PrepareForSleep'",
                         &Watch::onSleep, watch) >= 0 &&
        sd_bus_add_match(bus, nullptr,
                         "type='signal',"
                         "interface='org.freedesktop.login1.Session',"
                         "member='Lock'",
                         &Watch::onLock, watch) >= 0 &&
        sd_bus_add_match(bus, nullptr,
                         "type='signal',"
                         "interface='org.freedesktop.DBus.Properties',"
                         "member='PropertiesChanged',"
                         "arg0='org.freedesktop.login1.Session'",
                         &Watch::onProperties, watch) >= 0;
    if (!matched) {
      if (note_) note_("no-logind");
      sd_bus_flush_close_unref(bus);
      return;
    }
    while (!watch->stopping.load()) {
      const int r = sd_bus_process(bus, nullptr);
      if (r < 0) break;
      if (r > 0) continue;
      if (sd_bus_wait(bus, kPollMicros) < 0) break;
    }
    sd_bus_flush_close_unref(bus);
  });
}

void SessionEvents::stop() {
  if (!watch_) return;
  watch_->stopping = true;
  if (watch_->thread.joinable()) watch_->thread.join();
  watch_.reset();
}

}  // namespace tolvanger::port
