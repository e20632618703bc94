#include "command/Listener.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "agent/Messages.h"
#include "command/RequestCircuit.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/net/OmSocketAddress.h"
#include "foundation/net/OmSystemd.h"

Listener::Listener(OmEventLoop& l)
    : loop(l),
      acceptCallback(this, &Listener::acceptCB),
      resumeCallback(this, &Listener::resumeCB) {}

namespace {

// Descriptors this process has open now; -1 if that cannot be told.
long openDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  long count = 0;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the listing's own descriptor
}

}  // namespace

Listener::~Listener() {
  connectionCap = 0;  // circuits closing below must not reopen the port
  RemoveCallback();
  if (pausedForDescriptors) loop.RemoveTimeoutEvent(resumeTime, &resumeCallback);
  if (deleteArmed) loop.RemoveTimeoutEvent(deleteTime, &deleteCallback);
  for (const PendingDelete& pending : pendingDeletes) delete pending.rc;
  pendingDeletes.clear();
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
  // A socket the service manager passed for this port is taken instead.
  if (!OmSystemd::TakeListener(socket, static_cast<unsigned>(port)) &&
      !socket.Bind(OmSocketAddress(address), OmSocket::Stream, true, 0, false)) {
    LogBindFailed(static_cast<unsigned>(port), socket.LastError().Reason());
    return false;
  }
  if (!socket.Listen(opts.backlog == 0 ? SOMAXCONN : opts.backlog)) {
    LogListenFailed(static_cast<unsigned>(port), socket.LastError().Reason());
    return false;
  }
  // Close-on-exec, so the measuring tool does not inherit the port.
  socket.SetBlocking(false);
  socket.SetCloseOnExec(true);
  listenFd = socket.Fd();
  connectionCap = connectionCapFor(opts.maxConnections, opts.descriptorReserve);
  return true;
}

// With a reserve, connections may use only what the descriptor limit leaves
// beyond the descriptors open now (tool pipe, logs, sockets) and the
// reserve, so that the tool can always be restarted and the logs reopened.
unsigned Listener::connectionCapFor(unsigned maxConnections, unsigned reserve) {
  if (reserve == 0) return maxConnections;
  rlimit limit{};
  const long open = openDescriptors();
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY || open < 0) {
    return maxConnections;
  }
  const long room = static_cast<long>(std::min<rlim_t>(limit.rlim_cur, 1u << 30)) - open -
                    static_cast<long>(reserve);
  const unsigned fits = static_cast<unsigned>(std::max(room, 1L));
  return maxConnections == 0 ? fits : std::min(maxConnections, fits);
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
  if (!opts.clientAllow.IsEmpty() && !opts.clientAllow.Contains(peer)) {
    LogClientRefused(peer.AsString(false));
    return;  // closed unanswered
  }
  LogNewConnection(peer.AsString(false));
  startNewConnection(connection.Release());
}

void Listener::resumeCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  pausedForDescriptors = false;
  if (!atCap) AddCallback();
}

void Listener::startNewConnection(int fd) {
  connectionOpened();
  auto* rc = new RequestCircuit(loop, fd, this);
  circuits.Append(rc);
  rc->readIfWaiting();
}

void Listener::connectionOpened() {
  ++openConnections;
  if (connectionCap == 0 || openConnections < connectionCap) return;
  // The pending connections wait in the backlog, not in our descriptors.
  atCap = true;
  RemoveCallback();
  if (!capLogged) LogConnectionLimit(connectionCap);
  capLogged = true;
}

void Listener::connectionClosed() {
  if (openConnections > 0) --openConnections;
  if (connectionCap == 0) return;
  if (openConnections <= connectionCap / 2) capLogged = false;
  if (!atCap || openConnections >= connectionCap) return;
  atCap = false;
  if (!pausedForDescriptors) AddCallback();
}

void Listener::DeleteRequestCircuit(RequestCircuit* rc) {
  if (circuits.Remove(rc)) ++removedCount;
  pendingDeletes.push_back({OmTimeVal::now().PlusSeconds(1), rc});
  armDeletion();
}

void Listener::circuitRetired(RequestCircuit* rc) {
  // Most finish within the handler that scheduled them: near the back.
  for (auto it = pendingDeletes.rbegin(); it != pendingDeletes.rend(); ++it) {
    if (it->rc != rc) continue;
    it->rc = nullptr;
    delete rc;
    return;
  }
}

void Listener::armDeletion() {
  if (deleteArmed || pendingDeletes.empty()) return;
  // Batched: under load it rides along with the turns the requests make
  // rather than waking the loop.
  deleteTime = loop.AddBatchedTimeoutEvent(pendingDeletes.front().when, &deleteCallback);
  deleteArmed = true;
}

void Listener::deleteCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  deleteArmed = false;
  // Those due within the loop's batch window go now, as their own timers
  // would have.
  const OmTimeVal now = OmTimeVal::now();
  const OmTimeVal due = now.PlusMilliseconds(OmEventLoop::kBatchWindowMs);
  while (!pendingDeletes.empty() && pendingDeletes.front().when <= due) {
    RequestCircuit* rc = pendingDeletes.front().rc;
    pendingDeletes.pop_front();
    if (rc == nullptr) continue;
    if (opts.closeBrokenConnections && rc->isSending()) {
      // A slow reader keeps its reply: look again in a second.
      pendingDeletes.push_back({now.PlusSeconds(1), rc});
      continue;
    }
    delete rc;
  }
  armDeletion();
}
