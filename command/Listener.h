#ifndef QUELM_COMMAND_LISTENER_H_
#define QUELM_COMMAND_LISTENER_H_

#include "command/ConnectionServer.h"

class OmEventLoop;
class RequestCircuit;

// The command port: its server's protocol part. Each connection is a
// request circuit that answers one request; a finished circuit waits a
// second for its deletion so that its reply can drain.
class Listener : private ConnectionServer::Port {
 public:
  static constexpr unsigned DELETION_DELAY_SECONDS = 1;

  using Options = ConnectionServer::Options;

  explicit Listener(OmEventLoop& loop);
  ~Listener() override = default;
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Before startListener.
  void setOptions(const Options& o) { opts = o; }
  const Options& options() const { return opts; }

  // Binds every address at port and accepts; a failure is logged. True
  // once the port is open, whether or not the loop took the registration.
  bool startListener(int port);
  // Opens the listening socket only.
  bool startListeningSocket(int port);
  // Start and stop polling the port for connections.
  void AddCallback() { server.startAccepting(); }
  void RemoveCallback() { server.stopAccepting(); }
  // Connections accepted whose descriptor is still open (being answered).
  unsigned openConnections() const { return server.openConnections(); }
  // The circuit for an accepted connection; the server keeps it in its set.
  RequestCircuit* startNewConnection(int fd);

 private:
  ServerConnection* connect(int fd) override;
  void listenFailed(const OmInetAddr& address, bool bound, const OmUniString& reason) override;
  void peerUnknown() override;
  void admitted(const OmInetAddr& peer) override;
  void capReached(unsigned cap) override;

  Options opts;
  ConnectionServer server;
};

#endif  // QUELM_COMMAND_LISTENER_H_
