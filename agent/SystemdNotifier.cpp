#include "agent/SystemdNotifier.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmSystemd.h"
#include "foundation/process/OmUnixProcess.h"

SystemdNotifier* mySystemdNotifier = nullptr;

SystemdNotifier::SystemdNotifier(OmEventLoop& l)
    : loop(l),
      readyCallback(this, &SystemdNotifier::readyCB),
      watchdogCallback(this, &SystemdNotifier::watchdogCB),
      reloadStartCallback(this, &SystemdNotifier::reloadStartCB),
      reloadEndCallback(this, &SystemdNotifier::reloadEndCB) {
  watchdogMicros =
      OmSystemd::WatchdogMicroseconds(getenv("WATCHDOG_USEC"), getenv("WATCHDOG_PID"), getpid());
}

SystemdNotifier::~SystemdNotifier() {
  pr.RemoveSignalCallback(SIGHUP, &reloadStartCallback);
  pr.RemoveSignalCallback(SIGHUP, &reloadEndCallback);
}

void SystemdNotifier::send(const std::string& state) {
  std::string reason;
  if (OmSystemd::Notify(state, reason)) {
    failing = false;
    return;
  }
  const char* socketName = getenv("NOTIFY_SOCKET");
  if (!failing) LogNotifyFailed(OmUniString::FromUtf8(socketName), OmUniString::FromUtf8(reason));
  failing = true;
}

void SystemdNotifier::catchReloadStart() { pr.CatchSignal(SIGHUP, &reloadStartCallback); }

void SystemdNotifier::catchReloadEnd() { pr.CatchSignal(SIGHUP, &reloadEndCallback); }

void SystemdNotifier::readyAtLoopStart() {
  readyTimer.Arm(OmTimeVal::now());
}

void SystemdNotifier::readyCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  send("READY=1\nMAINPID=" + std::to_string(getpid()));
  if (watchdogMicros != 0) {
    send("WATCHDOG=1");
    armWatchdog();
  }
}

void SystemdNotifier::armWatchdog() {
  // Half the interval: one late turn of the loop is no reason to be killed.
  const uint64_t half = watchdogMicros / 2;
  const OmTimeVal whole = OmTimeVal::now().PlusSeconds(static_cast<uint32_t>(half / 1000000));
  watchdogTimer.Arm(OmTimeVal(whole.seconds, whole.microseconds + half % 1000000));
}

void SystemdNotifier::watchdogCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  send("WATCHDOG=1");
  armWatchdog();
}

void SystemdNotifier::reloadStartCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t micros = static_cast<uint64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
  send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(micros));
}

void SystemdNotifier::reloadEndCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  send("READY=1");
}

void SystemdNotifier::stopping() { send("STOPPING=1"); }
