#ifndef QUELM_FOUNDATION_STRING_OMBYTEBUFFER_H_
#define QUELM_FOUNDATION_STRING_OMBYTEBUFFER_H_

#include <cstdint>
#include <cstddef>

// Shared representation of an OmByteBuffer: reference counted, malloc'ed.
class OmByteBufferRep {
 public:
  OmByteBufferRep();
  OmByteBufferRep(const OmByteBufferRep& other);  // deep copy, count 1
  virtual void _extend(unsigned long n, bool setLength);
  virtual void RefCountSub();
  virtual ~OmByteBufferRep();

  uint32_t refCount;
  uint64_t length;
  uint64_t capacity;
  unsigned char* data;

  OmByteBufferRep& operator=(const OmByteBufferRep&) = delete;
};

// A byte buffer with copy-on-write sharing. The empty buffer allocates nothing.
class OmByteBuffer {
 public:
  OmByteBuffer() = default;
  OmByteBuffer(const void* bytes, unsigned long count);
  explicit OmByteBuffer(const char* text);  // bytes of text without its zero
  OmByteBuffer(const OmByteBuffer& other);
  OmByteBuffer(OmByteBuffer&& other) noexcept;
  OmByteBuffer& operator=(const OmByteBuffer& other);
  OmByteBuffer& operator=(OmByteBuffer&& other) noexcept;
  ~OmByteBuffer();

  unsigned long Length() const { return rep_ ? static_cast<unsigned long>(rep_->length) : 0; }
  unsigned long Capacity() const { return rep_ ? static_cast<unsigned long>(rep_->capacity) : 0; }
  bool IsEmpty() const { return Length() == 0; }
  // Read access; null for a buffer that never held bytes.
  const unsigned char* Data() const { return rep_ ? rep_->data : nullptr; }
  // Write access: makes the representation unique first.
  unsigned char* MutableData();

  // Makes sure n bytes fit without changing the length.
  void Reserve(unsigned long n);
  // Sets the length; growing leaves the new bytes unset.
  void SetLength(unsigned long n);
  void Insert(unsigned long at, unsigned long count, const void* bytes);
  void Append(const void* bytes, unsigned long count) { Insert(Length(), count, bytes); }
  void Append(const OmByteBuffer& other) { Append(other.Data(), other.Length()); }
  void Remove(unsigned long at, unsigned long count);
  void Clear() { SetLength(0); }

  uint32_t HashValue() const;
  bool _equal(const OmByteBuffer& other) const;
  bool operator==(const OmByteBuffer& other) const;
  bool operator!=(const OmByteBuffer& other) const { return !(*this == other); }

  // Sharing, for diagnostics and tests.
  bool SharesWith(const OmByteBuffer& other) const { return rep_ != nullptr && rep_ == other.rep_; }
  uint32_t RefCount() const { return rep_ ? rep_->refCount : 0; }

  void _Unique();

 private:
  OmByteBufferRep* rep_ = nullptr;
};

#endif  // QUELM_FOUNDATION_STRING_OMBYTEBUFFER_H_
