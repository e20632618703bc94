#include "foundation/net/OmByteCircuit.h"

#include <unistd.h>

#include <utility>

#include "foundation/event/OmEventLoop.h"

OmByteCircuit::OmByteCircuit(OmEventLoop& loop)
    : loop_(loop), t_(std::make_unique<Transfer>(this)) {}

OmByteCircuit::~OmByteCircuit() {
  if (readWant_ > 0) RemoveReadInterest();
  RemoveWriteInterest();
  if (t_ == nullptr) return;
  // A descriptor handed over with close-after-send belongs to the circuit
  // until it has been sent.
  for (const Message& m : t_->queue) {
    if (m.type == Descriptor && m.closeAfter) ::close(m.fd);
  }
}

void OmByteCircuit::WriteError() { StopWrite(true); }

void OmByteCircuit::ReadError() {
  if (readWant_ > 0) RemoveReadInterest();
  readWant_ = 0;
}

void OmByteCircuit::EndOfFile(bool /*partial*/) { ReadError(); }

int OmByteCircuit::Read(void* buf, long len, long& done) {
  if (readFile_ == nullptr) return OmFile::ioError;
  return readFile_->Read(buf, len, done);
}

int OmByteCircuit::WantRead() {
  if (++readWant_ == 1 && readFile_ != nullptr && readFile_->Fd() >= 0) {
    readFd_ = readFile_->Fd();
    loop_.AddFileEvent(static_cast<unsigned>(readFd_), true, false, &t_->readCallback);
  }
  return readWant_;
}

int OmByteCircuit::StopRead() {
  if (readWant_ == 0) return 0;
  if (--readWant_ == 0) RemoveReadInterest();
  return readWant_;
}

void OmByteCircuit::RemoveReadInterest() {
  if (readFd_ < 0) return;
  // The loop does not compare the callback when withdrawing.
  loop_.RemoveFileEvent(static_cast<unsigned>(readFd_), true, false, nullptr);
  readFd_ = -1;
}

void OmByteCircuit::ReadMore(unsigned long n) {
  t_->incoming.Reserve(t_->incoming.Length() + t_->requested + n);
  t_->requested += n;
}

OmByteBuffer OmByteCircuit::TakeIncoming() {
  OmByteBuffer taken(std::move(t_->incoming));
  t_->incoming = OmByteBuffer();
  t_->requested = 0;
  t_->arrived = 0;
  return taken;
}

void OmByteCircuit::readCB(OmCallback<OmEvent::cbdispatch>* /*cb*/,
                           OmEvent::cbdispatch /*reason*/) {
  if (t_ == nullptr) return;
  ++handlerDepth_;
  ReadPass();
  LeaveHandler();
}

void OmByteCircuit::LeaveHandler() {
  if (--handlerDepth_ > 0 || !retireWhenDone_ || t_ == nullptr) return;
  if (readWant_ == 0 && writeClosed_ && !writeRegistered_ && t_->queue.IsEmpty()) {
    // Also ends the callback that may be dispatching this very handler;
    // nothing of it is used once the handler returns.
    t_.reset();
    Retired();
  }
}

void OmByteCircuit::ReadPass() {
  for (;;) {
    if (receiveFD_ && !ReceiveDescriptor()) return;

    if (t_->requested == 0) {
      ReadAvail(t_->incoming);
      if (t_->requested == 0) return;
    }

    const unsigned long have = t_->incoming.Length();
    t_->incoming.Reserve(have + t_->requested);
    unsigned char* space = t_->incoming.MutableData() + have;
    long done = 0;
    switch (Read(space, static_cast<long>(t_->requested), done)) {
      case OmFile::ioPartial:
        if (done > 0) {
          const unsigned long got = static_cast<unsigned long>(done);
          t_->incoming.SetLength(have + got);
          t_->requested -= got;
          t_->arrived += got;
        }
        return;
      case OmFile::ioComplete:
        // All requested bytes are in: go round again to hand them over.
        t_->incoming.SetLength(have + t_->requested);
        t_->requested = 0;
        t_->arrived = 0;
        break;
      case OmFile::ioEndOfFile:
        EndOfFile(t_->arrived != 0);
        return;
      default:
        ReadError();
        RecoverFromReadError();
        return;
    }
  }
}

bool OmByteCircuit::ReceiveDescriptor() {
  OmFile::RecvFDInfo info;
  switch (readFile_ != nullptr ? readFile_->RecvFD(info) : OmFile::ioError) {
    case OmFile::ioComplete:
      receiveFD_ = false;
      FileDescriptorAvail(info);
      return false;
    case OmFile::ioEndOfFile:
      EndOfFile(false);
      return false;
    case OmFile::ioError:
      ReadError();
      if (readFile_ != nullptr && readFile_->IsDescriptorPassing()) {
        receiveFD_ = false;
        return true;
      }
      return false;
    default:
      return false;
  }
}

// A read that failed on a descriptor-passing socket may have met a
// descriptor where bytes were expected; take it off the socket.
void OmByteCircuit::RecoverFromReadError() {
  if (readFile_ == nullptr || !readFile_->IsDescriptorPassing()) return;
  OmFile::RecvFDInfo info;
  switch (readFile_->RecvFD(info)) {
    case OmFile::ioError:
      readErrorRecovery_ = true;
      ReadError();
      readErrorRecovery_ = false;
      break;
    case OmFile::ioComplete:
      ::close(info.fd);
      break;
    case OmFile::ioEndOfFile:
      EndOfFile(t_->arrived != 0);
      break;
    default:
      break;
  }
}

void OmByteCircuit::Write(const OmByteBuffer& data, bool now) {
  if (data.IsEmpty()) return;
  Message m;
  m.type = Data;
  m.buffer = data;
  m.remaining = data.Length();
  t_->queue.Append(std::move(m));
  if (now) {
    writeCB(&t_->writeCallback, OmEvent::fired);
  } else {
    AddWriteInterest();
  }
}

void OmByteCircuit::SendFileDescriptor(int fd, bool closeAfter) {
  Message m;
  m.type = Descriptor;
  m.fd = fd;
  m.closeAfter = closeAfter;
  t_->queue.Append(std::move(m));
  AddWriteInterest();
}

void OmByteCircuit::WantWrite() { AddWriteInterest(); }

void OmByteCircuit::StopWrite(bool now) {
  if (now) {
    for (const Message& m : t_->queue) {
      if (m.type == Descriptor && m.closeAfter) ::close(m.fd);
    }
    t_->queue.Clear();
    RemoveWriteInterest();
    return;
  }
  Message m;
  m.type = CloseMarker;
  t_->queue.Append(std::move(m));
  if (t_->queue.Length() == 1) writeCB(&t_->writeCallback, OmEvent::fired);
}

void OmByteCircuit::AddWriteInterest() {
  if (writeRegistered_ || writeFile_ == nullptr || writeFile_->Fd() < 0) return;
  if (loop_.AddFileEvent(static_cast<unsigned>(writeFile_->Fd()), false, true,
                         &t_->writeCallback)) {
    writeRegistered_ = true;
    writeFd_ = writeFile_->Fd();
  }
}

void OmByteCircuit::RemoveWriteInterest() {
  if (!writeRegistered_) return;
  loop_.RemoveFileEvent(static_cast<unsigned>(writeFd_), false, true, nullptr);
  writeRegistered_ = false;
  writeFd_ = -1;
}

void OmByteCircuit::writeCB(OmCallback<OmEvent::cbdispatch>* /*cb*/,
                            OmEvent::cbdispatch /*reason*/) {
  if (t_ == nullptr) return;
  ++handlerDepth_;
  WritePass();
  LeaveHandler();
}

void OmByteCircuit::WritePass() {
  if (WriteAvail()) return;
  if (t_->queue.IsEmpty()) {
    if (writeRegistered_) StopWrite(true);
    return;
  }
  if (writeFile_ == nullptr) {
    WriteError();
    return;
  }

  while (!t_->queue.IsEmpty()) {
    Message& m = t_->queue.First();
    long done = 0;
    int result = OmFile::ioError;
    if (m.type == CloseMarker) {
      RemoveWriteInterest();
      writeFile_->Close();
      writeClosed_ = true;
      t_->queue.RemoveAt(0);
      WriteStopped();
      continue;
    }
    if (m.type == Data) {
      const unsigned long length = m.buffer.Length();
      result = writeFile_->Write(m.buffer.Data() + (length - m.remaining),
                                 static_cast<long>(m.remaining), done);
    } else {
      result = writeFile_->SendFD(m.fd);
    }

    if (result == OmFile::ioPartial) {
      const unsigned long written = done > 0 ? static_cast<unsigned long>(done) : 0;
      const bool data = m.type == Data;
      if (data) m.remaining -= written;
      AddWriteInterest();
      if (data && written > 0) WriteMore(written);
      return;
    }
    if (result != OmFile::ioComplete) {
      WriteError();
      return;
    }
    if (m.type == Descriptor && m.closeAfter) ::close(m.fd);
    t_->queue.RemoveAt(0);
  }
  RemoveWriteInterest();
}

OmByteCircuit::Statistics* OmByteCircuit::GetStatistics() {
  if (t_->statistics == nullptr) t_->statistics = std::make_unique<Statistics>();
  Statistics& statistics = *t_->statistics;
  statistics = Statistics();
  for (const Message& m : t_->queue) {
    SMessage s;
    s.type = m.type;
    s.length = m.type == Data ? m.remaining : 0;
    if (m.type == Descriptor) s.flag = m.closeAfter;
    statistics.messages.push_back(s);
    statistics.queuedBytes += s.length;
  }
  statistics.queuedMessages = t_->queue.Length();
  statistics.incomingBytes = t_->incoming.Length();
  statistics.requested = t_->requested;
  statistics.readWant = readWant_;
  statistics.writeRegistered = writeRegistered_;
  return t_->statistics.get();
}
