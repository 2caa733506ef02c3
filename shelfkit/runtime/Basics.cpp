// Small platform services: the log, the clock and UUID text.
#include <uuid/uuid.h>

#include <cstdio>
#include <ctime>
#include <mutex>

#include "module/platform/Clock.h"
#include "module/platform/Log.h"
#include "module/platform/UUID.h"

namespace platform {
namespace {

std::mutex gLogMutex;
std::function<void(const std::string&)> gLogSink;  // guarded by gLogMutex

std::mutex gClockMutex;
std::function<Date()> gClock;  // guarded by gClockMutex

}  // namespace

void log(const std::string& message) {
  std::lock_guard lock(gLogMutex);
  if (gLogSink) {
    gLogSink(message);
    return;
  }
  std::time_t t = std::time(nullptr);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", std::localtime(&t));
  std::fprintf(stderr, "%s [shelf] %s\n", stamp, message.c_str());
}

void setLogSinkForTesting(std::function<void(const std::string&)> sink) {
  std::lock_guard lock(gLogMutex);
  gLogSink = std::move(sink);
}

Date now() {
  std::lock_guard lock(gClockMutex);
  return gClock ? gClock() : std::chrono::system_clock::now();
}

void setClockForTesting(std::function<Date()> clock) {
  std::lock_guard lock(gClockMutex);
  gClock = std::move(clock);
}

double timeIntervalSinceNow(Date date) {
  return std::chrono::duration<double>(date - now()).count();
}

std::string newUUIDString() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

}  // namespace platform
