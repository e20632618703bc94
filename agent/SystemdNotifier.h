#ifndef QUELM_AGENT_SYSTEMDNOTIFIER_H_
#define QUELM_AGENT_SYSTEMDNOTIFIER_H_

#include <cstdint>
#include <string>

#include "foundation/event/OmCallback.h"
#include "foundation/event/OmTimer.h"
#include "foundation/string/OmTimeVal.h"

class OmEventLoop;

// What the service manager is told (key systemd): ready once the loop
// serves the ports, reloading around a SIGHUP, stopping at exit, and a
// keep-alive from a loop timer at half the watchdog interval, so that a loop
// that hangs is noticed and the service restarted.
class SystemdNotifier {
 public:
  explicit SystemdNotifier(OmEventLoop& loop);
  ~SystemdNotifier();
  SystemdNotifier(const SystemdNotifier&) = delete;
  SystemdNotifier& operator=(const SystemdNotifier&) = delete;

  // Signal callbacks run in the order they were caught: the reload's start
  // is caught before the child manager's SIGHUP, its end after it.
  void catchReloadStart();
  void catchReloadEnd();
  // Ready, and the first keep-alive, at the loop's first turn.
  void readyAtLoopStart();
  void stopping();

  void readyCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void watchdogCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void reloadStartCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void reloadEndCB(OmEventCallback* cb, OmEvent::cbdispatch reason);

 private:
  void send(const std::string& state);
  void armWatchdog();

  OmEventLoop& loop;
  uint64_t watchdogMicros = 0;  // 0: no watchdog asked for
  bool failing = false;
  OmSimpleCallback<OmEvent::cbdispatch, SystemdNotifier> readyCallback;
  OmSimpleCallback<OmEvent::cbdispatch, SystemdNotifier> watchdogCallback;
  OmTimer readyTimer{loop, &readyCallback};
  OmTimer watchdogTimer{loop, &watchdogCallback};
  OmSimpleCallback<OmEvent::cbdispatch, SystemdNotifier> reloadStartCallback;
  OmSimpleCallback<OmEvent::cbdispatch, SystemdNotifier> reloadEndCallback;
};

// Created by start-up when the key is on; told of the stop at exit.
extern SystemdNotifier* mySystemdNotifier;

#endif  // QUELM_AGENT_SYSTEMDNOTIFIER_H_
