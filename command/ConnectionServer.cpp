#include "command/ConnectionServer.h"

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "agent/Messages.h"
#include "command/DescriptorBudget.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmSocketAddress.h"
#include "foundation/net/OmSystemd.h"

ServerConnection::ServerConnection(ConnectionServer& server)
    : OmByteCircuit(server.loop()), server_(server), deadline_(server.loop(), &deadlineCallback_) {
  if (const unsigned seconds = server.options().requestTimeout) {
    deadline_.Arm(OmTimeVal::now().PlusSeconds(seconds));
  }
}

void ServerConnection::deadlineCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason == OmEvent::fired) deadlineReached();
}

void ServerConnection::descriptorClosed() {
  cancelDeadline();
  server_.connectionClosed();
}

void ServerConnection::retire() { server_.retire(this); }

ConnectionServer::ConnectionServer(OmEventLoop& loop, Port& port) : loop_(loop), port_(port) {}

ConnectionServer::~ConnectionServer() {
  closing_ = true;
  setAccepting(false);
  for (const PendingDelete& pending : pending_) delete pending.connection;
  pending_.clear();
  for (ServerConnection* connection : live_.Snapshot()) delete connection;
  live_.Clear();
  socket_.Close();
  if (opts_.budget != nullptr) opts_.budget->leave(*this);
}

long ConnectionServer::openDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  long count = 0;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the listing's own descriptor
}

bool ConnectionServer::start(const OmInetAddr& address, const Options& options) {
  if (!listen(address, options)) return false;
  startAccepting();
  return accepting_;
}

bool ConnectionServer::listen(const OmInetAddr& address, const Options& options) {
  opts_ = options;
  if (!openSocket(address)) return false;
  // Counted once the port's own descriptor is open.
  if (opts_.budget == nullptr) {
    cap_ = opts_.maxConnections;
  } else {
    opts_.budget->join(*this, opts_.maxConnections, opts_.descriptorsPerConnection);
  }
  return true;
}

void ConnectionServer::setCap(unsigned cap) {
  cap_ = cap;
  resumeAccepting();
}

void ConnectionServer::startAccepting() {
  stopped_ = false;
  resumeAccepting();
}

void ConnectionServer::stopAccepting() {
  stopped_ = true;
  setAccepting(false);
}

bool ConnectionServer::openSocket(const OmInetAddr& address) {
  // A socket the service manager passed for this port is taken instead: it
  // stayed open while the probe was down.
  const bool passed = OmSystemd::TakeListener(socket_, address.GetPort());
  if (!passed && !socket_.Bind(OmSocketAddress(address), OmSocket::Stream, true, 0, false)) {
    port_.listenFailed(address, false, socket_.LastError().Reason());
    socket_.Close();
    return false;
  }
  if (!socket_.Listen(opts_.backlog == 0 ? SOMAXCONN : opts_.backlog)) {
    port_.listenFailed(address, true, socket_.LastError().Reason());
    socket_.Close();
    return false;
  }
  // Close-on-exec, so the measuring tool does not inherit the port.
  socket_.SetBlocking(false);
  socket_.SetCloseOnExec(true);
  return true;
}

void ConnectionServer::setAccepting(bool on) {
  if (on == accepting_ || socket_.Fd() < 0) return;
  const unsigned fd = static_cast<unsigned>(socket_.Fd());
  const bool changed = on ? loop_.AddFileEvent(fd, true, false, &acceptCallback_)
                          : loop_.RemoveFileEvent(fd, true, false, &acceptCallback_);
  if (changed) accepting_ = on;
}

// At the cap the pending connections wait in the backlog, not in our
// descriptors.
void ConnectionServer::resumeAccepting() {
  setAccepting(!closing_ && !stopped_ && !paused_ && (cap_ == 0 || open_ < cap_));
}

void ConnectionServer::acceptCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  OmSocket connection;
  // Non-blocking and close-on-exec from the start, as the circuits need it.
  if (connection.AcceptFrom(socket_, SOCK_NONBLOCK | SOCK_CLOEXEC) != OmStatus::Success) {
    const int err = connection.LastError().Errno();
    if (err == EAGAIN || err == EWOULDBLOCK) return;
    const bool descriptorsOut = err == EMFILE || err == ENFILE;
    // Out of descriptors is said once until an accept succeeds again.
    if (!descriptorsOut || !outOfDescriptors_) LogAcceptFail(connection.LastError().Reason());
    if (!descriptorsOut) return;
    // The pending connection would wake us at once again: stop polling the
    // port briefly, then resume.
    outOfDescriptors_ = true;
    paused_ = true;
    setAccepting(false);
    resumeTimer_.Arm(OmTimeVal::now().PlusMilliseconds(ACCEPT_PAUSE_MS));
    return;
  }
  outOfDescriptors_ = false;
  OmInetAddr peer;
  if (!connection.RemoteAddress(peer)) {
    port_.peerUnknown();
    return;  // closing the socket drops the connection unanswered
  }
  if (!opts_.clientAllow.IsEmpty() && !opts_.clientAllow.Contains(peer)) {
    LogClientRefused(peer.AsPeerString());
    return;  // closed unanswered
  }
  port_.admitted(peer);
  ServerConnection* circuit = port_.connect(connection.Release());
  if (circuit == nullptr) return;
  live_.Append(circuit);
  ++open_;
  if (cap_ != 0 && open_ >= cap_) {
    setAccepting(false);
    if (!capLogged_) port_.capReached(cap_);
    capLogged_ = true;
  }
  circuit->begin();
}

void ConnectionServer::resumeCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  paused_ = false;
  resumeAccepting();
}

void ConnectionServer::connectionClosed() {
  if (open_ > 0) --open_;
  if (closing_ || cap_ == 0) return;
  if (open_ <= cap_ / 2) capLogged_ = false;
  if (open_ < cap_) resumeAccepting();
}

void ConnectionServer::retire(ServerConnection* connection) {
  live_.Remove(connection);
  pending_.push_back({OmTimeVal::now().PlusSeconds(opts_.deletionDelay), connection});
  armDeletion();
}

void ConnectionServer::deleteRetired(ServerConnection* connection) {
  // Most finish within the handler that scheduled them: near the back.
  for (auto it = pending_.rbegin(); it != pending_.rend(); ++it) {
    if (it->connection != connection) continue;
    it->connection = nullptr;
    delete connection;
    return;
  }
}

void ConnectionServer::armDeletion() {
  if (deleteTimer_.Armed() || pending_.empty()) return;
  // Batched: under load it rides along with the turns the requests make
  // rather than waking the loop.
  deleteTimer_.ArmBatched(pending_.front().when);
}

void ConnectionServer::deleteCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  // Those due within the loop's batch window go now, as their own timers
  // would have.
  const OmTimeVal now = OmTimeVal::now();
  const OmTimeVal due = now.PlusMilliseconds(OmEventLoop::kBatchWindowMs);
  while (!pending_.empty() && pending_.front().when <= due) {
    ServerConnection* connection = pending_.front().connection;
    pending_.pop_front();
    if (connection == nullptr) continue;
    if (connection->holdsDeletion()) {
      pending_.push_back({now.PlusSeconds(opts_.deletionDelay), connection});
      continue;
    }
    delete connection;
  }
  armDeletion();
}
