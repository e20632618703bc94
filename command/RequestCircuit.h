#ifndef QUELM_COMMAND_REQUESTCIRCUIT_H_
#define QUELM_COMMAND_REQUESTCIRCUIT_H_

#include <memory>

#include "command/ConnectionServer.h"
#include "foundation/event/OmCallback.h"
#include "foundation/string/OmByteBuffer.h"
#include "foundation/string/OmFile.h"

class ParseCommand;

// One accepted command connection: collects one request, answers it with
// one reply document and ends.
class RequestCircuit : public ServerConnection {
 public:
  static constexpr unsigned long MAXREQUESTSIZE = 512;
  static constexpr unsigned long MINREQUESTSIZE = 10;  // this many bytes or fewer is too short
  static const char* const BAD_REQUEST_MESSAGE;

  // fd: an accepted connection, already non-blocking and close-on-exec.
  RequestCircuit(ConnectionServer& server, int fd);
  ~RequestCircuit() override;

  // Reads the request at once if it has arrived with the connection, saving
  // the wait for the next readiness; otherwise readiness brings it as usual.
  void begin() override { readIfWaiting(); }
  void readIfWaiting();

  void ReadAvail(OmByteBuffer& incoming) override;
  void EndOfFile(bool partial) override;
  // A reset connection ends the circuit like an early close.
  void ReadError() override;
  // The reply has gone and the descriptor is closed.
  void WriteStopped() override;
  // The peer is gone while the reply was being written.
  void WriteError() override;
  // A finished circuit whose connection has closed is of no more use.
  void Retired() override;
  // The descriptor is still open with a reply on its way.
  bool isSending() const { return files != nullptr && finished; }
  // A slow reader keeps its reply while hardened.
  bool holdsDeletion() const override { return hardened() && isSending(); }

  bool isComplete(OmByteBuffer& request);
  void DispatchRequest(OmByteBuffer& request);
  void SendReply(OmByteBuffer& reply, bool close);
  void SendReply(const char* text, bool close);

 private:
  void reject();
  void finish();
  void lateReplyCB(OmCallback<const OmUniString&>* cb, const OmUniString& reply);
  void sendReplyText(const OmUniString& reply);
  // Logs text, the reply as text, and sends reply.
  void sendReply(const OmUniString& text, OmByteBuffer& reply, bool close);
  // Hardened ends: close the descriptor now rather than at the deletion.
  bool hardened() const;
  void closeNow();
  void filesClosed();
  void deadlineReached() override;

  // The connection's descriptor: the same one in both files. Kept apart
  // from the circuit so that a finished circuit, which waits a second for
  // its deletion, gives it up as soon as its reply has gone.
  struct Files {
    Files(int fd, OmFile::Kind writeKind) : readFile(fd, OmFile::kInetSocket), writeFile(fd, writeKind) {}
    OmFile readFile;
    OmFile writeFile;
  };

  std::unique_ptr<Files> files;
  OmByteBuffer requestBuffer;
  bool finished = false;
  // A create whose reply waits for its subscriber's address look-up.
  std::unique_ptr<ParseCommand> waiting;
  OmSimpleCallback<const OmUniString&, RequestCircuit> lateReplyCallback{
      this, &RequestCircuit::lateReplyCB};
};

#endif  // QUELM_COMMAND_REQUESTCIRCUIT_H_
