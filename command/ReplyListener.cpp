#include "command/ReplyListener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "agent/Messages.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmByteCircuit.h"
#include "foundation/net/OmSocketAddress.h"
#include "foundation/net/OmSystemd.h"
#include "foundation/string/OmFile.h"

// One connection of a ReplyListener. The answer goes out through a duplicate
// of the connection's descriptor: closing the duplicate once the answer has
// been written marks its end, and the connection is then half-closed and
// read to its end before it is closed, so that unread client bytes never
// turn the close into a reset that could destroy the answer in flight.
class ReplyCircuit : public OmByteCircuit {
 public:
  ReplyCircuit(OmEventLoop& loop, int fd, int writeFd, ReplyListener& owner)
      : OmByteCircuit(loop),
        readFile(fd, OmFile::kInetSocket),
        writeFile(writeFd, OmFile::kInetSocket),
        owner(owner),
        deadlineCallback(this, &ReplyCircuit::deadlineCB),
        deadline(OmTimeVal::now().PlusSeconds(owner.lifetime)) {
    SetReadFile(&readFile);
    SetWriteFile(&writeFile);
    deadlineArmed = loop.AddTimeoutEvent(deadline, &deadlineCallback);
    WantRead();
  }

  ~ReplyCircuit() override {
    disarm();
    while (StopRead() > 0) {
    }
    StopWrite(true);
  }

  // Some services answer before the client has said anything.
  void begin() { consult(); }

  void ReadAvail(OmByteBuffer& incoming) override {
    if (done) return;
    if (incoming.IsEmpty()) {
      const long waiting = readFile.AmountAvailable();
      ReadMore(waiting > 0 ? static_cast<unsigned long>(waiting) : 1);
      return;
    }
    const OmByteBuffer bytes = TakeIncoming();
    total += bytes.Length();
    if (answered) {
      // What follows the answer is read only to be dropped.
      if (total > ReplyListener::MAXINPUT) finish();
      return;
    }
    received.Append(bytes);
    consult();
  }

  void EndOfFile(bool) override { finish(); }
  void ReadError() override { finish(); }
  void WriteError() override { finish(); }
  void WriteStopped() override {
    // The whole answer is with the system: end our direction, keep reading.
    if (!done) ::shutdown(readFile.Fd(), SHUT_WR);
  }

 private:
  void consult() {
    OmByteBuffer reply;
    switch (owner.service->serve(received, reply)) {
      case ReplyListener::Service::Wait:
        if (total > ReplyListener::MAXINPUT) finish();
        return;
      case ReplyListener::Service::Answer:
        answered = true;
        received = OmByteBuffer();
        Write(reply, true);
        StopWrite(false);
        return;
    }
  }

  void deadlineCB(OmEventCallback*, OmEvent::cbdispatch reason) {
    if (reason != OmEvent::fired) return;
    deadlineArmed = false;
    finish();
  }

  void disarm() {
    if (!deadlineArmed) return;
    deadlineArmed = false;
    Loop().RemoveTimeoutEvent(deadline, &deadlineCallback);
  }

  void finish() {
    if (done) return;
    done = true;
    disarm();
    while (StopRead() > 0) {
    }
    StopWrite(true);
    writeFile.Close();
    readFile.Close();
    owner.retire(this);
  }

  OmFile readFile;
  OmFile writeFile;
  ReplyListener& owner;
  OmSimpleCallback<OmEvent::cbdispatch, ReplyCircuit> deadlineCallback;
  OmTimeVal deadline;
  bool deadlineArmed = false;
  OmByteBuffer received;
  unsigned long total = 0;
  bool answered = false;
  bool done = false;
};

ReplyListener::ReplyListener(OmEventLoop& l, const char* n, std::unique_ptr<Service> s)
    : loop(l),
      name(n),
      service(std::move(s)),
      acceptCallback(this, &ReplyListener::acceptCB),
      resumeCallback(this, &ReplyListener::resumeCB),
      reapCallback(this, &ReplyListener::reapCB) {}

ReplyListener::~ReplyListener() {
  setAccepting(false);
  if (paused) loop.RemoveTimeoutEvent(resumeTime, &resumeCallback);
  // Withdrawing the reaping runs it at once.
  if (reapArmed) loop.RemoveTimeoutEvent(reapTime, &reapCallback);
  for (ReplyCircuit* rc : circuits) delete rc;
}

bool ReplyListener::start(const OmInetAddr& address, const Listener::Options& o) {
  options = o;
  if (options.requestTimeout != 0) lifetime = options.requestTimeout;
  // A socket the service manager passed for this port is taken instead.
  const bool ok = (OmSystemd::TakeListener(socket, address.GetPort()) ||
                   socket.Bind(OmSocketAddress(address), OmSocket::Stream, true, 0, false)) &&
                  socket.Listen(options.backlog == 0 ? SOMAXCONN : options.backlog);
  if (!ok) {
    LogReplyPortFailed(OmUniString(name), address.AsString(true), socket.LastError().Reason());
    socket.Close();
    return false;
  }
  // Close-on-exec, so the measuring tool does not inherit the port.
  socket.SetBlocking(false);
  socket.SetCloseOnExec(true);
  cap = Listener::connectionCapFor(
      options.maxConnections != 0 ? options.maxConnections : MAXCONNECTIONS, options.descriptorReserve);
  setAccepting(true);
  return accepting;
}

void ReplyListener::setAccepting(bool on) {
  if (on == accepting || socket.Fd() < 0) return;
  const unsigned fd = static_cast<unsigned>(socket.Fd());
  const bool changed = on ? loop.AddFileEvent(fd, true, false, &acceptCallback)
                          : loop.RemoveFileEvent(fd, true, false, &acceptCallback);
  if (changed) accepting = on;
}

void ReplyListener::resumeAccepting() { setAccepting(!paused && circuits.size() < cap); }

bool ReplyListener::admit(const OmInetAddr& peer) const {
  if (options.clientAllow.IsEmpty() || options.clientAllow.Contains(peer)) return true;
  LogClientRefused(peer.AsString(false));
  return false;
}

void ReplyListener::acceptCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  OmSocket connection;
  if (connection.AcceptFrom(socket, SOCK_NONBLOCK | SOCK_CLOEXEC) != OmStatus::Success) {
    const int err = connection.LastError().Errno();
    if (err == EAGAIN || err == EWOULDBLOCK) return;
    const bool outOfDescriptors = err == EMFILE || err == ENFILE;
    // Out of descriptors is said once until an accept succeeds again.
    if (!outOfDescriptors || !descriptorsShort) LogAcceptFail(connection.LastError().Reason());
    if (!outOfDescriptors) return;
    // The waiting connection would wake the loop at once again.
    descriptorsShort = true;
    setAccepting(false);
    paused = true;
    resumeTime = OmTimeVal::now().PlusMilliseconds(100);
    loop.AddTimeoutEvent(resumeTime, &resumeCallback);
    return;
  }
  descriptorsShort = false;
  OmInetAddr peer;
  // Turned away: the connection closes with the temporary socket.
  if (!connection.RemoteAddress(peer) || !admit(peer)) return;
  const int writeFd = fcntl(connection.Fd(), F_DUPFD_CLOEXEC, 0);
  if (writeFd < 0) return;
  auto* rc = new ReplyCircuit(loop, connection.Release(), writeFd, *this);
  circuits.push_back(rc);
  // At the cap, further clients wait in the backlog, not in our descriptors.
  resumeAccepting();
  rc->begin();
}

void ReplyListener::resumeCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  paused = false;
  resumeAccepting();
}

void ReplyListener::retire(ReplyCircuit* rc) {
  circuits.erase(std::remove(circuits.begin(), circuits.end(), rc), circuits.end());
  finished.push_back(rc);
  resumeAccepting();
  if (reapArmed) return;
  reapTime = OmTimeVal::now();
  reapArmed = loop.AddTimeoutEvent(reapTime, &reapCallback);
}

void ReplyListener::reapCB(OmEventCallback*, OmEvent::cbdispatch) {
  // Fired or withdrawn, the finished circuits go: nothing refers to them.
  reapArmed = false;
  std::vector<ReplyCircuit*> gone;
  gone.swap(finished);
  for (ReplyCircuit* rc : gone) delete rc;
}
