#ifndef QUELM_PORTS_REPLYLISTENER_H_
#define QUELM_PORTS_REPLYLISTENER_H_

#include <memory>

#include "command/ConnectionServer.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/string/OmByteBuffer.h"

class OmEventLoop;

// A TCP port on which every connection gets one answer and is then closed:
// the agent check and the metrics page. What to answer is the service's
// business; the connection server owns the sockets and the limits, and the
// reply circuit bounds what a client may send and closes gracefully, so that
// a client still sending when the answer is ready does not lose the answer
// to a reset.
class ReplyListener : private ConnectionServer::Port {
 public:
  class Service {
   public:
    enum Verdict { Wait, Answer };
    virtual ~Service() = default;
    // received: every byte the client has sent so far, empty at accept. On
    // Answer, reply holds the whole answer.
    virtual Verdict serve(const OmByteBuffer& received, OmByteBuffer& reply) = 0;
  };

  // The most bytes a connection may send in all, answered or not.
  static constexpr unsigned long MAXINPUT = 8192;
  // Where the command port's limits leave these open: the longest a
  // connection is kept, from accept to close, and the connections served at
  // once (more wait in the backlog).
  static constexpr unsigned LIFETIME_SECONDS = 10;
  static constexpr unsigned MAXCONNECTIONS = 64;
  // How long a connection is kept once its whole answer is with the
  // system: a client holding it open gains nothing, and must not keep
  // other clients in the backlog.
  static constexpr unsigned GRACE_MS = 1000;

  // name: how failures name this port in the log.
  ReplyListener(OmEventLoop& loop, const char* name, std::unique_ptr<Service> service);
  ~ReplyListener() override;
  ReplyListener(const ReplyListener&) = delete;
  ReplyListener& operator=(const ReplyListener&) = delete;

  // Binds, listens and registers with the loop; a failure is logged. The
  // command port's limits apply: backlog, request timeout (here the whole
  // connection's), connection cap and client allow-list.
  bool start(const OmInetAddr& address, const ConnectionServer::Options& options);

 private:
  friend class ReplyCircuit;

  ServerConnection* connect(int fd) override;
  void listenFailed(const OmInetAddr& address, bool bound, const OmUniString& reason) override;

  const char* name;
  std::unique_ptr<Service> service;
  ConnectionServer server;
};

#endif  // QUELM_PORTS_REPLYLISTENER_H_
