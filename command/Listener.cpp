#include "command/Listener.h"

#include <sys/socket.h>

#include <cerrno>

#include "agent/Messages.h"
#include "command/RequestCircuit.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/net/OmSocketAddress.h"

Listener::Listener(OmEventLoop& l)
    : loop(l),
      acceptCallback(this, &Listener::acceptCB),
      resumeCallback(this, &Listener::resumeCB) {}

Listener::~Listener() {
  RemoveCallback();
  if (pausedForDescriptors) loop.RemoveTimeoutEvent(resumeTime, &resumeCallback);
  // Withdrawing a pending deletion runs it at once.
  for (const PendingDelete& pending : std::deque<PendingDelete>(pendingDeletes)) {
    loop.RemoveTimeoutEvent(pending.when, pending.callback);
  }
  for (RequestCircuit* rc : circuits.Snapshot()) delete rc;
  circuits.Clear();
  socket.Close();
  listenFd = -1;
}

bool Listener::startListener(int port) {
  if (!startListeningSocket(port)) return false;
  AddCallback();
  return true;
}

bool Listener::startListeningSocket(int port) {
  listenFd = -1;
  OmInetAddr address = OmInetAddr::AddressAny();
  address.Port(static_cast<unsigned>(port));
  if (!socket.Bind(OmSocketAddress(address), OmSocket::Stream, true, 0, false)) {
    LogBindFailed(static_cast<unsigned>(port), socket.LastError().Reason());
    return false;
  }
  if (!socket.Listen(BACKLOG)) {
    LogListenFailed(static_cast<unsigned>(port), socket.LastError().Reason());
    return false;
  }
  // Close-on-exec, so the measuring tool does not inherit the port.
  socket.SetBlocking(false);
  socket.SetCloseOnExec(true);
  listenFd = socket.Fd();
  return true;
}

void Listener::AddCallback() {
  if (registered || listenFd < 0) return;
  registered = loop.AddFileEvent(static_cast<unsigned>(listenFd), true, false, &acceptCallback);
}

void Listener::RemoveCallback() {
  if (!registered) return;
  if (loop.RemoveFileEvent(static_cast<unsigned>(listenFd), true, false, &acceptCallback)) {
    registered = false;
  }
}

void Listener::acceptCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  OmSocket connection;
  // Non-blocking and close-on-exec from the start, as the circuit needs it.
  if (connection.AcceptFrom(socket, SOCK_NONBLOCK | SOCK_CLOEXEC) != OmStatus::Success) {
    const int err = connection.LastError().Errno();
    if (err == EAGAIN || err == EWOULDBLOCK) return;
    if (err == EMFILE || err == ENFILE) {
      // Out of descriptors: the pending connection would wake us at once
      // again. Say so once per episode, stop polling the port briefly, then
      // resume.
      if (!outOfDescriptors) LogAcceptFail(connection.LastError().Reason());
      outOfDescriptors = true;
      RemoveCallback();
      pausedForDescriptors = true;
      resumeTime = OmTimeVal::now().PlusMilliseconds(ACCEPT_PAUSE_MS);
      loop.AddTimeoutEvent(resumeTime, &resumeCallback);
      return;
    }
    LogAcceptFail(connection.LastError().Reason());
    return;
  }
  outOfDescriptors = false;
  OmInetAddr peer;
  if (!connection.RemoteAddress(peer)) {
    LogRemoteAddressFail();
    return;  // closing the socket drops the connection unanswered
  }
  LogNewConnection(peer.AsString(false));
  startNewConnection(connection.Release());
}

void Listener::resumeCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  pausedForDescriptors = false;
  AddCallback();
}

void Listener::startNewConnection(int fd) {
  auto* rc = new RequestCircuit(loop, fd, this);
  circuits.Append(rc);
  rc->readIfWaiting();
}

void Listener::DeleteRequestCircuit(RequestCircuit* rc) {
  if (circuits.Remove(rc)) ++removedCount;
  const OmTimeVal now = OmTimeVal::now();
  const OmTimeVal when(now.seconds + 1, now.microseconds);
  auto* cb = new OmCallbackWithData<OmEvent::cbdispatch, Listener, RequestCircuit*>(
      this, &Listener::deleteCB, rc);
  pendingDeletes.push_back({when, cb});
  // One a request: under load they ride along with the turns the requests
  // make rather than each waking the loop.
  loop.AddBatchedTimeoutEvent(when, cb);
}

void Listener::deleteCB(OmEventCallback* cb, OmEvent::cbdispatch, RequestCircuit* rc) {
  // Deleted whether fired or withdrawn: nothing else refers to either.
  for (auto it = pendingDeletes.begin(); it != pendingDeletes.end(); ++it) {
    if (it->callback == cb) {
      pendingDeletes.erase(it);
      break;
    }
  }
  delete rc;
  delete cb;
}
