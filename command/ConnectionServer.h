#ifndef QUELM_COMMAND_CONNECTIONSERVER_H_
#define QUELM_COMMAND_CONNECTIONSERVER_H_

#include <deque>

#include "foundation/event/OmCallback.h"
#include "foundation/event/OmTimer.h"
#include "foundation/net/OmAddressRange.h"
#include "foundation/net/OmByteCircuit.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/net/OmSocket.h"
#include "foundation/string/OmContainers.h"
#include "foundation/string/OmTimeVal.h"
#include "foundation/string/OmUniString.h"

class OmEventLoop;
class ConnectionServer;
class DescriptorBudget;

// One accepted connection of a ConnectionServer: the circuit a port's
// protocol builds on. It carries the server's per-connection deadline and
// hands itself back to the server when it is finished.
class ServerConnection : public OmByteCircuit {
 public:
  // Arms the deadline when the server has one.
  explicit ServerConnection(ConnectionServer& server);
  ~ServerConnection() override = default;

  // Runs at once after the server has counted the connection in: the place
  // for what is done before the loop reports anything (a request that came
  // with the connection, an answer owed at accept).
  virtual void begin() {}
  // True keeps a retired connection from its deletion one more delay.
  virtual bool holdsDeletion() const { return false; }

 protected:
  ConnectionServer& server() const { return server_; }
  // The deadline has passed; the timer is no longer armed.
  virtual void deadlineReached() = 0;
  void cancelDeadline() { deadline_.Cancel(); }
  // Moves the deadline to when, if that is sooner.
  void deadlineBy(const OmTimeVal& when) {
    if (!deadline_.Armed() || when < deadline_.When()) deadline_.Arm(when);
  }
  // The connection's descriptor has been closed: it no longer counts
  // against the cap. Once per connection.
  void descriptorClosed();
  // Finished: out of the live set, deleted after the server's delay, never
  // inside its own handler.
  void retire();

 private:
  void deadlineCB(OmEventCallback* cb, OmEvent::cbdispatch reason);

  ConnectionServer& server_;
  OmSimpleCallback<OmEvent::cbdispatch, ServerConnection> deadlineCallback_{
      this, &ServerConnection::deadlineCB};
  OmTimer deadline_;
};

// What every TCP port of the probe does the same: binds and listens with the
// backlog; keeps the connections under the cap (its own, or its share of
// the probe's descriptor budget);
// accepts with a pause when out of descriptors; turns away clients outside
// the allow-list; arms each connection's deadline; and deletes finished
// connections after a delay, outside their own handlers. A port supplies its
// protocol through a Port: the circuit for a connection let in and what it
// logs.
class ConnectionServer {
 public:
  // Pause before accepting again after running out of descriptors.
  static constexpr unsigned ACCEPT_PAUSE_MS = 100;

  // The limits an operator may set, and the port's own constants.
  struct Options {
    unsigned backlog = 0;  // 0: as many as the system allows
    // A broken connection ends its own circuit only, and a reply is kept
    // until it has drained (or the request timeout ends the connection).
    bool closeBrokenConnections = false;
    unsigned requestTimeout = 0;     // seconds a connection may live; 0: for ever
    unsigned maxConnections = 0;     // 0: no cap
    // Shared with the other ports, and capping this one at its share; null:
    // maxConnections alone.
    DescriptorBudget* budget = nullptr;
    unsigned descriptorsPerConnection = 1;
    OmAddressRangeList clientAllow;  // empty: every client
    // Seconds a finished connection waits for its deletion; 0: the next turn.
    unsigned deletionDelay = 0;
  };

  // The protocol part of a port.
  class Port {
   public:
    virtual ~Port() = default;
    // The circuit for a connection let in. fd: non-blocking, close-on-exec,
    // the circuit's from here. Null turns it away (the port closes fd).
    virtual ServerConnection* connect(int fd) = 0;
    // Binding (bound false) or listening failed.
    virtual void listenFailed(const OmInetAddr& address, bool bound, const OmUniString& reason) = 0;
    // What a talkative port logs; quiet by default.
    virtual void peerUnknown() {}
    virtual void admitted(const OmInetAddr& /*peer*/) {}
    virtual void capReached(unsigned /*cap*/) {}
  };

  ConnectionServer(OmEventLoop& loop, Port& port);
  // Deletes every connection, live or waiting for its deletion.
  ~ConnectionServer();
  ConnectionServer(const ConnectionServer&) = delete;
  ConnectionServer& operator=(const ConnectionServer&) = delete;

  // Descriptors this process has open now; -1 if that cannot be told.
  static long openDescriptors();

  // Opens the port and starts accepting; a failure is told to the port.
  bool start(const OmInetAddr& address, const Options& options);
  // The two halves of start: the listening socket (and the cap, shared out
  // once it is open), then polling it.
  bool listen(const OmInetAddr& address, const Options& options);
  void startAccepting();
  // Stops polling the port until startAccepting: clients wait in the backlog.
  void stopAccepting();
  bool accepting() const { return accepting_; }

  // Where the port listens (the system's choice for port 0).
  bool localAddress(OmInetAddr& address) { return socket_.LocalAddress(address); }
  OmEventLoop& loop() const { return loop_; }
  const Options& options() const { return opts_; }
  unsigned connectionCap() const { return cap_; }
  unsigned openConnections() const { return open_; }

  // From the budget: the most connections open at once; 0: no cap.
  void setCap(unsigned cap);
  // From ServerConnection.
  void connectionClosed();
  void retire(ServerConnection* connection);
  // A retired connection with nothing left to do: deleted now, its place in
  // the schedule stays empty.
  void deleteRetired(ServerConnection* connection);

 private:
  // The one place a listening socket comes from.
  bool openSocket(const OmInetAddr& address);
  void acceptCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void resumeCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void deleteCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void setAccepting(bool on);
  // Accepting while neither out of descriptors nor at the cap.
  void resumeAccepting();
  void armDeletion();

  OmEventLoop& loop_;
  Port& port_;
  Options opts_;
  OmSocket socket_;
  unsigned cap_ = 0;  // 0: accept as long as the system lets us
  unsigned open_ = 0;  // connections whose descriptor is open, finished ones too
  bool accepting_ = false;
  bool paused_ = false;            // out of descriptors, until the pause ends
  bool outOfDescriptors_ = false;  // until the next successful accept
  bool capLogged_ = false;         // until the connections fall to half the cap
  bool stopped_ = true;            // until startAccepting, and by stopAccepting
  bool closing_ = false;           // connections closing must not reopen the port
  OmIList<ServerConnection> live_;
  // Deletions in the order they fall due, served by one timer; a connection
  // deleted early leaves a null in its place.
  struct PendingDelete {
    OmTimeVal when;
    ServerConnection* connection;
  };
  std::deque<PendingDelete> pending_;
  OmSimpleCallback<OmEvent::cbdispatch, ConnectionServer> acceptCallback_{this, &ConnectionServer::acceptCB};
  OmSimpleCallback<OmEvent::cbdispatch, ConnectionServer> resumeCallback_{this, &ConnectionServer::resumeCB};
  OmSimpleCallback<OmEvent::cbdispatch, ConnectionServer> deleteCallback_{this, &ConnectionServer::deleteCB};
  OmTimer resumeTimer_{loop_, &resumeCallback_};
  OmTimer deleteTimer_{loop_, &deleteCallback_};
};

#endif  // QUELM_COMMAND_CONNECTIONSERVER_H_
