#include "command/RequestCircuit.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>
#include <string>

#include "agent/Counters.h"
#include "agent/Messages.h"
#include "command/ParseCommand.h"
#include "foundation/event/OmEventLoop.h"

const char* const RequestCircuit::BAD_REQUEST_MESSAGE =
    "Message is either too short or too long to be valid";

namespace {

// Request and reply bytes map one to one onto string units.
OmUniString asText(const OmByteBuffer& bytes) {
  return OmUniString::CreateFrom(bytes, OmEncoding::LATIN1);
}

// The client's address as text, for bounding its name look-ups; empty when
// the socket no longer knows it.
std::string peerAddress(int fd) {
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  char text[INET6_ADDRSTRLEN] = "";
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return std::string();
  const void* address = peer.ss_family == AF_INET6
                            ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(&peer)->sin6_addr)
                            : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(&peer)->sin_addr);
  if (inet_ntop(peer.ss_family, address, text, sizeof text) == nullptr) return std::string();
  return text;
}

}  // namespace

RequestCircuit::RequestCircuit(ConnectionServer& server, int fd)
    : ServerConnection(server),
      // A quiet socket turns a vanished peer into a write error, not SIGPIPE.
      files(std::make_unique<Files>(fd, server.options().closeBrokenConnections ? OmFile::kQuietSocket
                                                                               : OmFile::kInetSocket)) {
  // The server accepts connections non-blocking already.
  SetReadFile(&files->readFile);
  SetWriteFile(&files->writeFile);
  RetireWhenDone();
  WantRead();
}

RequestCircuit::~RequestCircuit() {
  waiting.reset();  // its look-up no longer reports here
  if (files == nullptr) return;
  const bool open = files->readFile.Fd() >= 0;
  // Both files hold the one descriptor: close it once.
  files->writeFile.Release();
  files->readFile.Close();
  if (open) filesClosed();
}

bool RequestCircuit::hardened() const { return server().options().closeBrokenConnections; }

void RequestCircuit::filesClosed() { descriptorClosed(); }

void RequestCircuit::closeNow() {
  if (files == nullptr) return;
  while (StopRead() > 0) {
  }
  StopWrite(true);
  SetReadFile(nullptr);
  SetWriteFile(nullptr);
  files->writeFile.Release();
  files->readFile.Close();
  files.reset();
  filesClosed();
}

void RequestCircuit::deadlineReached() {
  if (files == nullptr) return;
  if (!finished) {
    LogRequestTimedOut(server().options().requestTimeout);
    finish();
  }
  closeNow();
}

void RequestCircuit::WriteError() {
  if (!hardened()) {
    OmByteCircuit::WriteError();
    return;
  }
  LogConnectionBroken(files != nullptr ? files->writeFile.LastError().Reason() : OmUniString());
  closeNow();
}

void RequestCircuit::Retired() {
  // Its deletion would find nothing left to close or withdraw; one waiting
  // for a look-up keeps it until then.
  if (finished && files == nullptr && waiting == nullptr) server().deleteRetired(this);
}

void RequestCircuit::readIfWaiting() {
  // Exactly what a readiness would do: the bytes waiting are the first read.
  const long waiting = files->readFile.AmountAvailable();
  if (waiting <= 0) return;
  ReadMore(static_cast<unsigned long>(waiting));
  readCB(nullptr, OmEvent::fired);
}

void RequestCircuit::ReadAvail(OmByteBuffer& incoming) {
  if (finished || waiting != nullptr) return;
  if (incoming.IsEmpty()) {
    const long waiting = files->readFile.AmountAvailable();
    ReadMore(waiting > 0 ? static_cast<unsigned long>(waiting) : 1);
    return;
  }
  requestBuffer.Append(TakeIncoming());
  if (requestBuffer.Length() > MAXREQUESTSIZE) {
    reject();
    return;
  }
  if (isComplete(requestBuffer)) {
    DispatchRequest(requestBuffer);
    requestBuffer.SetLength(0);
  }
}

bool RequestCircuit::isComplete(OmByteBuffer& request) {
  // Whatever has arrived once there are more than 10 bytes is the request;
  // fewer is rejected at once rather than waited for.
  if (static_cast<uint32_t>(request.Length()) > MINREQUESTSIZE) return true;
  reject();
  return false;
}

void RequestCircuit::reject() {
  ++probeCounters.commandBadRequests;
  LogBadCommand(static_cast<unsigned>(requestBuffer.Length()), asText(requestBuffer));
  requestBuffer.SetLength(0);
  SendReply(BAD_REQUEST_MESSAGE, true);
}

void RequestCircuit::DispatchRequest(OmByteBuffer& request) {
  OmUniString text = asText(request);
  // One command per circuit; the circuit outlives it by a second and need
  // not keep it, unless its reply waits for a look-up.
  auto parseCommand = std::make_unique<ParseCommand>();
  parseCommand->setLateReply(&lateReplyCallback);
  parseCommand->setClient(peerAddress(files->readFile.Fd()));
  const OmUniString& reply = parseCommand->doCommand(text);
  if (parseCommand->isPending()) {
    // Nothing more is read: the request is whole, and the reply ends the
    // connection once it comes.
    waiting = std::move(parseCommand);
    while (StopRead() > 0) {
    }
    return;
  }
  sendReplyText(reply);
}

void RequestCircuit::lateReplyCB(OmCallback<const OmUniString&>*, const OmUniString& reply) {
  // A connection that ended meanwhile (closed, timed out) has no one to tell.
  if (finished || files == nullptr) return;
  sendReplyText(reply);
}

void RequestCircuit::sendReplyText(const OmUniString& reply) {
  // The write queue keeps what it still needs of these bytes.
  OmByteBuffer replyBuffer = reply.AsEncoding(OmEncoding::LATIN1);
  // A reply holds protocol text and request bytes only, all below 256, so
  // the document logs exactly as the bytes that are sent.
  sendReply(reply, replyBuffer, true);
}

void RequestCircuit::SendReply(OmByteBuffer& reply, bool close) {
  sendReply(asText(reply), reply, close);
}

void RequestCircuit::sendReply(const OmUniString& text, OmByteBuffer& reply, bool close) {
  LogResponseText(text);
  Write(reply, true);
  if (!close) return;
  finish();
  // The connection closes as soon as the reply has gone, so the client sees
  // its end at once.
  StopWrite(false);
}

void RequestCircuit::SendReply(const char* text, bool close) {
  OmByteBuffer reply(text, std::strlen(text));
  SendReply(reply, close);
}

void RequestCircuit::finish() {
  if (finished) return;
  finished = true;
  while (StopRead() > 0) {
  }
  requestBuffer = OmByteBuffer();
  retire();
}

void RequestCircuit::EndOfFile(bool) {
  finish();
  if (hardened()) closeNow();
}

void RequestCircuit::ReadError() {
  finish();
  if (hardened()) closeNow();
}

void RequestCircuit::WriteStopped() {
  // The write file closed the shared descriptor; the read file must not
  // close that number again.
  files->readFile.Release();
  filesClosed();
  if (!finished) return;
  // Reading stopped before the reply was sent: the files are done with.
  SetReadFile(nullptr);
  SetWriteFile(nullptr);
  files.reset();
}
