#ifndef QUELM_COMMAND_LISTENER_H_
#define QUELM_COMMAND_LISTENER_H_

#include <cstddef>
#include <deque>

#include "foundation/event/OmCallback.h"
#include "foundation/net/OmAddressRange.h"
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

  // What an operator may harden; the defaults are the plain command port.
  struct Options {
    unsigned backlog = BACKLOG;  // 0: as many as the system allows
    // A broken connection ends its own circuit only, and a reply is kept
    // until it has drained (or the request timeout ends the connection).
    bool closeBrokenConnections = false;
    unsigned requestTimeout = 0;     // seconds a connection may live; 0: for ever
    unsigned maxConnections = 0;     // 0: no cap
    unsigned descriptorReserve = 0;  // descriptors connections leave free; 0: none
    OmAddressRangeList clientAllow;  // empty: every client
  };

  explicit Listener(OmEventLoop& loop);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // The most connections a port may have open at once under these limits;
  // 0: no cap. Every port of the probe shares the rule.
  static unsigned connectionCapFor(unsigned maxConnections, unsigned reserve);

  // Before startListener.
  void setOptions(const Options& o) { opts = o; }
  const Options& options() const { return opts; }

  bool startListener(int port);
  bool startListeningSocket(int port);
  void AddCallback();
  void RemoveCallback();
  void acceptCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void startNewConnection(int fd);
  // Takes the circuit out of the set and deletes it one second later, so
  // that it is never deleted inside its own handler and its reply can drain.
  void DeleteRequestCircuit(RequestCircuit* rc);
  // A circuit waiting for its deletion has nothing left to do: deleted now,
  // its place in the schedule stays empty.
  void circuitRetired(RequestCircuit* rc);

  int getListeningFd() const { return listenFd; }
  size_t getCircuitCount() const { return circuits.Length(); }
  unsigned long getRemovedCount() const { return removedCount; }
  bool isRegistered() const { return registered; }
  // Connections whose descriptor is still open, finished ones included.
  unsigned getOpenConnections() const { return openConnections; }
  unsigned getConnectionCap() const { return connectionCap; }
  // A circuit has closed its descriptor.
  void connectionClosed();

 private:
  void resumeCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void deleteCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void armDeletion();
  void connectionOpened();

  OmEventLoop& loop;
  Options opts;
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
  unsigned openConnections = 0;
  unsigned connectionCap = 0;  // 0: accept as long as the system lets us
  bool atCap = false;          // not polling the port until a connection ends
  bool capLogged = false;      // until the connections fall to half the cap
  // Deletions waiting for their second, in the order they fall due, served
  // by one timer; a circuit deleted early leaves a null in its place.
  struct PendingDelete {
    OmTimeVal when;
    RequestCircuit* rc;
  };
  std::deque<PendingDelete> pendingDeletes;
  OmSimpleCallback<OmEvent::cbdispatch, Listener> deleteCallback{this, &Listener::deleteCB};
  bool deleteArmed = false;
  OmTimeVal deleteTime;  // while armed
};

#endif  // QUELM_COMMAND_LISTENER_H_
