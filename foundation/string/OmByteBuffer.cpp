#include "foundation/string/OmByteBuffer.h"

#include <cstdlib>
#include <cstring>
#include <utility>

OmByteBufferRep::OmByteBufferRep() : refCount(1), length(0), capacity(0), data(nullptr) {}

OmByteBufferRep::OmByteBufferRep(const OmByteBufferRep& other)
    : refCount(1), length(other.length), capacity(other.capacity), data(nullptr) {
  if (capacity > 0) {
    data = static_cast<unsigned char*>(std::malloc(capacity));
    if (length > 0) std::memcpy(data, other.data, length);
  }
}

OmByteBufferRep::~OmByteBufferRep() { std::free(data); }

void OmByteBufferRep::_extend(unsigned long n, bool setLength) {
  const unsigned long slack = setLength ? n / 8 + 16 : 16;
  capacity = (n + slack) & ~static_cast<uint64_t>(15);
  data = static_cast<unsigned char*>(std::realloc(data, capacity));
  if (setLength) length = n;
}

void OmByteBufferRep::RefCountSub() {
  if (--refCount == 0) delete this;
}

OmByteBuffer::OmByteBuffer(const void* bytes, unsigned long count) {
  if (count > 0) Append(bytes, count);
}

OmByteBuffer::OmByteBuffer(const char* text) {
  if (text != nullptr) Append(text, std::strlen(text));
}

OmByteBuffer::OmByteBuffer(const OmByteBuffer& other) : rep_(other.rep_) {
  if (rep_ != nullptr) ++rep_->refCount;
}

OmByteBuffer::OmByteBuffer(OmByteBuffer&& other) noexcept : rep_(other.rep_) {
  other.rep_ = nullptr;
}

OmByteBuffer& OmByteBuffer::operator=(const OmByteBuffer& other) {
  if (rep_ != other.rep_) {
    if (other.rep_ != nullptr) ++other.rep_->refCount;
    if (rep_ != nullptr) rep_->RefCountSub();
    rep_ = other.rep_;
  }
  return *this;
}

OmByteBuffer& OmByteBuffer::operator=(OmByteBuffer&& other) noexcept {
  std::swap(rep_, other.rep_);
  return *this;
}

OmByteBuffer::~OmByteBuffer() {
  if (rep_ != nullptr) rep_->RefCountSub();
}

void OmByteBuffer::_Unique() {
  if (rep_ == nullptr) {
    rep_ = new OmByteBufferRep();
  } else if (rep_->refCount != 1) {
    OmByteBufferRep* copy = new OmByteBufferRep(*rep_);
    rep_->RefCountSub();
    rep_ = copy;
  }
}

unsigned char* OmByteBuffer::MutableData() {
  _Unique();
  return rep_->data;
}

void OmByteBuffer::Reserve(unsigned long n) {
  if (n <= Capacity() && (rep_ == nullptr || rep_->refCount == 1)) return;
  _Unique();
  if (n > rep_->capacity) rep_->_extend(n, false);
}

void OmByteBuffer::SetLength(unsigned long n) {
  if (n == Length()) return;
  _Unique();
  if (n > rep_->capacity) {
    rep_->_extend(n, true);
  } else {
    rep_->length = n;
  }
}

void OmByteBuffer::Insert(unsigned long at, unsigned long count, const void* bytes) {
  if (count == 0) return;
  _Unique();
  const unsigned long oldLength = static_cast<unsigned long>(rep_->length);
  if (at > oldLength) at = oldLength;
  const unsigned long newLength = oldLength + count;
  if (newLength >= rep_->capacity) rep_->_extend(newLength, true);
  std::memmove(rep_->data + at + count, rep_->data + at, oldLength - at);
  if (bytes != nullptr) std::memcpy(rep_->data + at, bytes, count);
  rep_->length = newLength;
}

void OmByteBuffer::Remove(unsigned long at, unsigned long count) {
  const unsigned long length = Length();
  if (at >= length || count == 0) return;
  if (count > length - at) count = length - at;
  _Unique();
  std::memmove(rep_->data + at, rep_->data + at + count, length - at - count);
  rep_->length = length - count;
}

uint32_t OmByteBuffer::HashValue() const {
  uint32_t h = 0;
  const unsigned long length = Length();
  for (unsigned long i = 0; i < length; ++i) h = 9 * h + rep_->data[i];
  return h;
}

bool OmByteBuffer::_equal(const OmByteBuffer& other) const {
  const unsigned long length = Length();
  return length == 0 || std::memcmp(rep_->data, other.rep_->data, length) == 0;
}

bool OmByteBuffer::operator==(const OmByteBuffer& other) const {
  return Length() == other.Length() && _equal(other);
}
