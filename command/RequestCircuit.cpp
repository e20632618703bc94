#include "command/RequestCircuit.h"

#include <cstring>

#include "agent/Counters.h"
#include "agent/Messages.h"
#include "command/Listener.h"
#include "command/ParseCommand.h"

const char* const RequestCircuit::BAD_REQUEST_MESSAGE =
    "Message is either too short or too long to be valid";

namespace {

// Request and reply bytes map one to one onto string units.
OmUniString asText(const OmByteBuffer& bytes) {
  return OmUniString::CreateFrom(bytes, OmEncoding::LATIN1);
}

}  // namespace

RequestCircuit::RequestCircuit(OmEventLoop& loop, int fd, Listener* owner)
    : OmByteCircuit(loop), files(std::make_unique<Files>(fd)), listener(owner) {
  // The listener accepts connections non-blocking already.
  SetReadFile(&files->readFile);
  SetWriteFile(&files->writeFile);
  RetireWhenDone();
  WantRead();
}

RequestCircuit::~RequestCircuit() {
  if (files == nullptr) return;
  // Both files hold the one descriptor: close it once.
  files->writeFile.Release();
  files->readFile.Close();
}

void RequestCircuit::readIfWaiting() {
  // Exactly what a readiness would do: the bytes waiting are the first read.
  const long waiting = files->readFile.AmountAvailable();
  if (waiting <= 0) return;
  ReadMore(static_cast<unsigned long>(waiting));
  readCB(nullptr, OmEvent::fired);
}

void RequestCircuit::ReadAvail(OmByteBuffer& incoming) {
  if (finished) return;
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
  // not keep it.
  ParseCommand parseCommand;
  const OmUniString& reply = parseCommand.doCommand(text);
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
  listener->DeleteRequestCircuit(this);
}

void RequestCircuit::EndOfFile(bool) { finish(); }

void RequestCircuit::ReadError() { finish(); }

void RequestCircuit::WriteStopped() {
  // The write file closed the shared descriptor; the read file must not
  // close that number again.
  files->readFile.Release();
  if (!finished) return;
  // Reading stopped before the reply was sent: the files are done with.
  SetReadFile(nullptr);
  SetWriteFile(nullptr);
  files.reset();
}
