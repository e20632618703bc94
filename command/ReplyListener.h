#ifndef QUELM_COMMAND_REPLYLISTENER_H_
#define QUELM_COMMAND_REPLYLISTENER_H_

#include <cstddef>
#include <memory>
#include <vector>

#include "command/Listener.h"
#include "foundation/event/OmCallback.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/net/OmSocket.h"
#include "foundation/string/OmByteBuffer.h"
#include "foundation/string/OmTimeVal.h"

class OmEventLoop;
class ReplyCircuit;

// A TCP port on which every connection gets one answer and is then closed:
// the agent check and the metrics page. What to answer is the service's
// business; the listener owns the sockets, bounds what a client may cost
// (bytes, time, connections) and closes gracefully, so that a client still
// sending when the answer is ready does not lose the answer to a reset.
class ReplyListener {
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

  // name: how failures name this port in the log.
  ReplyListener(OmEventLoop& loop, const char* name, std::unique_ptr<Service> service);
  ~ReplyListener();
  ReplyListener(const ReplyListener&) = delete;
  ReplyListener& operator=(const ReplyListener&) = delete;

  // Binds, listens and registers with the loop; a failure is logged. The
  // command port's limits apply: backlog, request timeout (here the whole
  // connection's), connection cap and client allow-list.
  bool start(const OmInetAddr& address, const Listener::Options& options);

 private:
  friend class ReplyCircuit;

  void acceptCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void resumeCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void reapCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  // The one place where a new connection is let in or turned away.
  bool admit(const OmInetAddr& peer) const;
  // The circuit is finished: deleted outside its own handlers.
  void retire(ReplyCircuit* rc);
  void setAccepting(bool on);
  // Accepting while neither out of descriptors nor at the cap.
  void resumeAccepting();

  OmEventLoop& loop;
  const char* name;
  std::unique_ptr<Service> service;
  OmSimpleCallback<OmEvent::cbdispatch, ReplyListener> acceptCallback;
  OmSimpleCallback<OmEvent::cbdispatch, ReplyListener> resumeCallback;
  OmSimpleCallback<OmEvent::cbdispatch, ReplyListener> reapCallback;
  OmSocket socket;
  Listener::Options options;
  unsigned cap = 0;
  unsigned lifetime = LIFETIME_SECONDS;
  bool accepting = false;
  bool paused = false;
  bool descriptorsShort = false;
  OmTimeVal resumeTime;
  bool reapArmed = false;
  OmTimeVal reapTime;
  std::vector<ReplyCircuit*> circuits;
  std::vector<ReplyCircuit*> finished;
};

#endif  // QUELM_COMMAND_REPLYLISTENER_H_
