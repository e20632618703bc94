#include "foundation/net/OmByteCircuit.h"

#include <unistd.h>

#include <utility>

#include "foundation/event/OmEventLoop.h"

OmByteCircuit::OmByteCircuit(OmEventLoop& loop)
    : loop_(loop),
      readCallback_(this, &OmByteCircuit::readCB),
      writeCallback_(this, &OmByteCircuit::writeCB) {}

OmByteCircuit::~OmByteCircuit() {
  if (readWant_ > 0) RemoveReadInterest();
  RemoveWriteInterest();
  // A descriptor handed over with close-after-send belongs to the circuit
  // until it has been sent.
  for (const Message& m : queue_) {
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
    loop_.AddFileEvent(static_cast<unsigned>(readFd_), true, false, &readCallback_);
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
  loop_.RemoveFileEvent(static_cast<unsigned>(readFd_), true, false, &readCallback_);
  readFd_ = -1;
}

void OmByteCircuit::ReadMore(unsigned long n) {
  incoming_.Reserve(incoming_.Length() + requested_ + n);
  requested_ += n;
}

OmByteBuffer OmByteCircuit::TakeIncoming() {
  OmByteBuffer taken(std::move(incoming_));
  incoming_ = OmByteBuffer();
  requested_ = 0;
  arrived_ = 0;
  return taken;
}

void OmByteCircuit::readCB(OmCallback<OmEvent::cbdispatch>* /*cb*/,
                           OmEvent::cbdispatch /*reason*/) {
  for (;;) {
    if (receiveFD_ && !ReceiveDescriptor()) return;

    if (requested_ == 0) {
      ReadAvail(incoming_);
      if (requested_ == 0) return;
    }

    const unsigned long have = incoming_.Length();
    incoming_.Reserve(have + requested_);
    unsigned char* space = incoming_.MutableData() + have;
    long done = 0;
    switch (Read(space, static_cast<long>(requested_), done)) {
      case OmFile::ioPartial:
        if (done > 0) {
          const unsigned long got = static_cast<unsigned long>(done);
          incoming_.SetLength(have + got);
          requested_ -= got;
          arrived_ += got;
        }
        return;
      case OmFile::ioComplete:
        // All requested bytes are in: go round again to hand them over.
        incoming_.SetLength(have + requested_);
        requested_ = 0;
        arrived_ = 0;
        break;
      case OmFile::ioEndOfFile:
        EndOfFile(arrived_ != 0);
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
      EndOfFile(arrived_ != 0);
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
  queue_.Append(std::move(m));
  if (now) {
    writeCB(&writeCallback_, OmEvent::fired);
  } else {
    AddWriteInterest();
  }
}

void OmByteCircuit::SendFileDescriptor(int fd, bool closeAfter) {
  Message m;
  m.type = Descriptor;
  m.fd = fd;
  m.closeAfter = closeAfter;
  queue_.Append(std::move(m));
  AddWriteInterest();
}

void OmByteCircuit::WantWrite() { AddWriteInterest(); }

void OmByteCircuit::StopWrite(bool now) {
  if (now) {
    for (const Message& m : queue_) {
      if (m.type == Descriptor && m.closeAfter) ::close(m.fd);
    }
    queue_.Clear();
    RemoveWriteInterest();
    return;
  }
  Message m;
  m.type = CloseMarker;
  queue_.Append(std::move(m));
  if (queue_.Length() == 1) writeCB(&writeCallback_, OmEvent::fired);
}

void OmByteCircuit::AddWriteInterest() {
  if (writeRegistered_ || writeFile_ == nullptr || writeFile_->Fd() < 0) return;
  if (loop_.AddFileEvent(static_cast<unsigned>(writeFile_->Fd()), false, true,
                         &writeCallback_)) {
    writeRegistered_ = true;
    writeFd_ = writeFile_->Fd();
  }
}

void OmByteCircuit::RemoveWriteInterest() {
  if (!writeRegistered_) return;
  loop_.RemoveFileEvent(static_cast<unsigned>(writeFd_), false, true, &writeCallback_);
  writeRegistered_ = false;
  writeFd_ = -1;
}

void OmByteCircuit::writeCB(OmCallback<OmEvent::cbdispatch>* /*cb*/,
                            OmEvent::cbdispatch /*reason*/) {
  if (WriteAvail()) return;
  if (queue_.IsEmpty()) {
    if (writeRegistered_) StopWrite(true);
    return;
  }
  if (writeFile_ == nullptr) {
    WriteError();
    return;
  }

  while (!queue_.IsEmpty()) {
    Message& m = queue_.First();
    long done = 0;
    int result = OmFile::ioError;
    if (m.type == CloseMarker) {
      RemoveWriteInterest();
      writeFile_->Close();
      queue_.RemoveAt(0);
      // Nothing more can go out: the queue's storage need not stay.
      if (queue_.IsEmpty()) queue_ = OmDList<Message>();
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
    queue_.RemoveAt(0);
  }
  RemoveWriteInterest();
}

OmByteCircuit::Statistics* OmByteCircuit::GetStatistics() {
  if (statistics_ == nullptr) statistics_ = std::make_unique<Statistics>();
  Statistics& statistics = *statistics_;
  statistics = Statistics();
  for (const Message& m : queue_) {
    SMessage s;
    s.type = m.type;
    s.length = m.type == Data ? m.remaining : 0;
    if (m.type == Descriptor) s.flag = m.closeAfter;
    statistics.messages.push_back(s);
    statistics.queuedBytes += s.length;
  }
  statistics.queuedMessages = queue_.Length();
  statistics.incomingBytes = incoming_.Length();
  statistics.requested = requested_;
  statistics.readWant = readWant_;
  statistics.writeRegistered = writeRegistered_;
  return statistics_.get();
}
