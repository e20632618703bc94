#include "ports/ReplyListener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "agent/Messages.h"
#include "foundation/string/OmFile.h"

// One connection of a ReplyListener. The answer goes out through a duplicate
// of the connection's descriptor: closing the duplicate once the answer has
// been written marks its end, and the connection is then half-closed and
// read until the client closes or the grace ends, so that client bytes
// left unread never turn the close into a reset that could destroy the
// answer in flight.
class ReplyCircuit : public ServerConnection {
 public:
  ReplyCircuit(ConnectionServer& server, int fd, int writeFd, ReplyListener& owner)
      : ServerConnection(server),
        readFile(fd, OmFile::kInetSocket),
        writeFile(writeFd, OmFile::kInetSocket),
        owner(owner) {
    SetReadFile(&readFile);
    SetWriteFile(&writeFile);
    WantRead();
  }

  ~ReplyCircuit() override {
    while (StopRead() > 0) {
    }
    StopWrite(true);
  }

  // Some services answer before the client has said anything.
  void begin() override { consult(); }

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
    // The whole answer is with the system: end our direction, and keep
    // reading for the grace only.
    if (done) return;
    ::shutdown(readFile.Fd(), SHUT_WR);
    deadlineBy(OmTimeVal::now().PlusMilliseconds(ReplyListener::GRACE_MS));
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

  void deadlineReached() override { finish(); }

  void finish() {
    if (done) return;
    done = true;
    while (StopRead() > 0) {
    }
    StopWrite(true);
    writeFile.Close();
    readFile.Close();
    descriptorClosed();
    retire();
  }

  OmFile readFile;
  OmFile writeFile;
  ReplyListener& owner;
  OmByteBuffer received;
  unsigned long total = 0;
  bool answered = false;
  bool done = false;
};

ReplyListener::ReplyListener(OmEventLoop& loop, const char* n, std::unique_ptr<Service> s)
    : name(n), service(std::move(s)), server(loop, *this) {}

// The server goes first: its circuits still use the service.
ReplyListener::~ReplyListener() = default;

bool ReplyListener::start(const OmInetAddr& address, const ConnectionServer::Options& limits) {
  ConnectionServer::Options o = limits;
  if (o.requestTimeout == 0) o.requestTimeout = LIFETIME_SECONDS;
  if (o.maxConnections == 0) o.maxConnections = MAXCONNECTIONS;
  // Finished circuits have closed their descriptor: deleted the next turn.
  o.deletionDelay = 0;
  o.descriptorsPerConnection = 2;  // the connection and the answer's duplicate
  return server.start(address, o);
}

ServerConnection* ReplyListener::connect(int fd) {
  const int writeFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (writeFd < 0) {
    close(fd);
    return nullptr;
  }
  return new ReplyCircuit(server, fd, writeFd, *this);
}

void ReplyListener::listenFailed(const OmInetAddr& address, bool, const OmUniString& reason) {
  LogReplyPortFailed(OmUniString(name), address.AsString(true), reason);
}
