#ifndef QUELM_COMMAND_LISTENER_H_
#define QUELM_COMMAND_LISTENER_H_

#include <cstddef>
#include <deque>

#include "foundation/event/OmCallback.h"
#include "foundation/net/OmSocket.h"
#include "foundation/string/OmContainers.h"
#include "foundation/string/OmTimeVal.h"

class OmEventLoop;
class RequestCircuit;

// Owns the command port: accepts connections and keeps the live request
// circuits, each of which answers one request.
class Listener {
 public:
  static constexpr unsigned BACKLOG = 5;
  // Pause before accepting again after running out of descriptors.
  static constexpr unsigned ACCEPT_PAUSE_MS = 100;

  explicit Listener(OmEventLoop& loop);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  bool startListener(int port);
  bool startListeningSocket(int port);
  void AddCallback();
  void RemoveCallback();
  void acceptCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void startNewConnection(int fd);
  // Takes the circuit out of the set and deletes it one second later, so
  // that it is never deleted inside its own handler and its reply can drain.
  void DeleteRequestCircuit(RequestCircuit* rc);
  void deleteCB(OmEventCallback* cb, OmEvent::cbdispatch reason, RequestCircuit* rc);

  int getListeningFd() const { return listenFd; }
  size_t getCircuitCount() const { return circuits.Length(); }
  unsigned long getRemovedCount() const { return removedCount; }
  bool isRegistered() const { return registered; }

 private:
  void resumeCB(OmEventCallback* cb, OmEvent::cbdispatch reason);

  OmEventLoop& loop;
  OmSimpleCallback<OmEvent::cbdispatch, Listener> acceptCallback;
  OmSimpleCallback<OmEvent::cbdispatch, Listener> resumeCallback;
  OmSocket socket;
  int listenFd = -1;
  bool registered = false;
  bool pausedForDescriptors = false;
  bool outOfDescriptors = false;  // until the next successful accept
  OmTimeVal resumeTime;
  OmIList<RequestCircuit> circuits;
  unsigned long removedCount = 0;
  // Deletions waiting for their second; kept here so they stay owned. They
  // fire in about the order they were made, so each is found near the front.
  struct PendingDelete {
    OmTimeVal when;
    OmEventCallback* callback;
  };
  std::deque<PendingDelete> pendingDeletes;
};

#endif  // QUELM_COMMAND_LISTENER_H_
