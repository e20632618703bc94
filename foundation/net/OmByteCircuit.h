#ifndef QUELM_FOUNDATION_NET_OMBYTECIRCUIT_H_
#define QUELM_FOUNDATION_NET_OMBYTECIRCUIT_H_

#include <memory>
#include <vector>

#include "foundation/event/OmCallback.h"
#include "foundation/string/OmByteBuffer.h"
#include "foundation/string/OmContainers.h"
#include "foundation/string/OmFile.h"

class OmEventLoop;

// A buffered non-blocking byte stream between the event loop and a read
// file and a write file (which may be the same). It collects incoming bytes
// until the requested count has arrived and then calls ReadAvail; it queues
// outgoing buffers by reference and writes them as the descriptor accepts
// them. Subclasses set the files; the circuit never closes them except for
// a queued close marker (StopWrite(false)).
class OmByteCircuit {
 public:
  enum SType { Data = 0, Descriptor = 1, CloseMarker = 2 };

  // One queued item.
  struct Message {
    SType type = Data;
    OmByteBuffer buffer;
    unsigned long remaining = 0;  // the next byte to write is at length - remaining
    int fd = -1;
    bool closeAfter = false;
  };

  // Diagnostics: one entry per queued message.
  struct SMessage {
    SType type = Data;
    unsigned long length = 0;  // bytes still to write
    bool flag = true;          // close-after-send of a descriptor
  };
  struct Statistics {
    std::vector<SMessage> messages;
    unsigned long queuedMessages = 0;
    unsigned long queuedBytes = 0;
    unsigned long incomingBytes = 0;
    unsigned long requested = 0;
    int readWant = 0;
    bool writeRegistered = false;
  };

  explicit OmByteCircuit(OmEventLoop& loop);
  // Withdraws the circuit's interest from the loop; does not close the files.
  virtual ~OmByteCircuit();
  OmByteCircuit(const OmByteCircuit&) = delete;
  OmByteCircuit& operator=(const OmByteCircuit&) = delete;

  // Error and notification operations; see the .cpp for the base behaviour.
  virtual void WriteError();
  virtual void ReadError();
  // partial: some bytes of the outstanding request had arrived, not all.
  virtual void EndOfFile(bool partial);
  // Called when all requested bytes have arrived, and with nothing requested
  // (incoming then empty unless left over) to ask how much to read.
  virtual void ReadAvail(OmByteBuffer& incoming) = 0;
  virtual bool WriteAvail() { return false; }
  virtual void FileDescriptorAvail(const OmFile::RecvFDInfo&) {}
  virtual void WriteStopped() {}
  virtual void WriteMore(unsigned long /*written*/) {}
  virtual int Read(void* buf, long len, long& done);

  // Read interest is registered while the want count is above 0.
  int WantRead();
  int StopRead();
  void ReadMore(unsigned long n);
  // Hands over the bytes received so far without copying and ends the request.
  OmByteBuffer TakeIncoming();
  // The next read readiness receives a descriptor instead of bytes.
  void ReceiveFileDescriptor() { receiveFD_ = true; }

  // Queues data by reference; an empty buffer is ignored. With now, writing
  // starts at once.
  void Write(const OmByteBuffer& data, bool now);
  void SendFileDescriptor(int fd, bool closeAfter);
  void WantWrite();
  // now: drop everything queued. Otherwise close the write file once all
  // queued messages have gone, then call WriteStopped.
  void StopWrite(bool now);

  Statistics* GetStatistics();

  int ReadWantCount() const { return readWant_; }
  unsigned long Requested() const { return t_ != nullptr ? t_->requested : 0; }
  size_t QueuedMessages() const { return t_ != nullptr ? t_->queue.Length() : 0; }
  bool IsWriteRegistered() const { return writeRegistered_; }
  bool InReadErrorRecovery() const { return readErrorRecovery_; }

 protected:
  void SetReadFile(OmFile* f) { readFile_ = f; }
  void SetWriteFile(OmFile* f) { writeFile_ = f; }
  OmFile* ReadFile() const { return readFile_; }
  OmFile* WriteFile() const { return writeFile_; }
  OmEventLoop& Loop() const { return loop_; }

  // Once nothing is wanted to read and the write file has been closed after
  // everything queued, the circuit frees what reading and writing need, at
  // the end of the handler that finished it. A circuit that waits a while
  // for its deletion then keeps only its own members; it must not be used
  // again except to be destroyed.
  void RetireWhenDone() { retireWhenDone_ = true; }
  // Called on retiring, as the last thing the handler does: the circuit may
  // be destroyed here.
  virtual void Retired() {}

  void readCB(OmCallback<OmEvent::cbdispatch>* cb, OmEvent::cbdispatch reason);
  void writeCB(OmCallback<OmEvent::cbdispatch>* cb, OmEvent::cbdispatch reason);

 private:
  using CircuitCallback = OmSimpleCallback<OmEvent::cbdispatch, OmByteCircuit>;

  // What reading and writing need while the circuit is in use.
  struct Transfer {
    explicit Transfer(OmByteCircuit* c)
        : readCallback(c, &OmByteCircuit::readCB), writeCallback(c, &OmByteCircuit::writeCB) {}
    CircuitCallback readCallback;
    CircuitCallback writeCallback;
    OmDList<Message> queue;
    OmByteBuffer incoming;
    unsigned long requested = 0;
    unsigned long arrived = 0;  // bytes of the outstanding request received so far
    std::unique_ptr<Statistics> statistics;  // made by the first GetStatistics
  };

  void ReadPass();
  void WritePass();
  // Ends a handler; the outermost one retires a circuit that is done.
  void LeaveHandler();
  // Returns false when the read handler should stop here.
  bool ReceiveDescriptor();
  void RecoverFromReadError();
  void RemoveReadInterest();
  void AddWriteInterest();
  void RemoveWriteInterest();

  OmFile* readFile_ = nullptr;
  OmFile* writeFile_ = nullptr;
  OmEventLoop& loop_;
  std::unique_ptr<Transfer> t_;  // null once retired
  int readWant_ = 0;
  int readFd_ = -1;   // descriptor the read interest was registered for
  int writeFd_ = -1;  // descriptor the write interest was registered for
  int handlerDepth_ = 0;
  bool writeRegistered_ = false;
  bool readErrorRecovery_ = false;
  bool receiveFD_ = false;
  bool writeClosed_ = false;
  bool retireWhenDone_ = false;
};

#endif  // QUELM_FOUNDATION_NET_OMBYTECIRCUIT_H_
