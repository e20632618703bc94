#ifndef QUELM_FOUNDATION_EVENT_OMTIMEOUTLIST_H_
#define QUELM_FOUNDATION_EVENT_OMTIMEOUTLIST_H_

#include <cstddef>
#include <cstdint>
#include <deque>

#include "foundation/event/OmCallback.h"
#include "foundation/string/OmTimeVal.h"

// One pending one-shot timeout at an absolute time.
struct OmEventTimeout {
  OmEventCallback* callback;
  OmTimeVal time;
  int SortFunction(const OmEventTimeout& other) const;
};

// The loop's pending timeouts in ascending time, earliest first. Entries with
// equal times stand in exactly the order that appending and re-running the
// list's quicksort (OmISortedList::DoSort) would leave them, since that order
// decides which of them fires first. When no two entries share a time the
// ascending order is unique and an insertion is a binary search; only while
// equal times are listed does an insertion append and re-run the quicksort.
// Taking the earliest entry is O(1), and so is adding a latest one, the
// common case of a deferred deletion.
class OmTimeoutList {
 public:
  void Insert(OmEventCallback* cb, const OmTimeVal& when, bool batched = false);
  size_t Length() const { return items_.size(); }
  bool IsEmpty() const { return items_.empty(); }
  // Position 0 is the earliest.
  const OmEventTimeout& operator[](size_t i) const { return items_[i].timeout; }
  // May fire in the same turn as the due entry before it; see OmEventLoop.
  bool Batched(size_t i) const { return items_[i].batched; }
  OmEventTimeout TakeFirst();
  bool Listed(const OmTimeVal& when) const {
    const size_t at = LowerBound(when);
    return at < items_.size() && Same(items_[at], Item{{nullptr, when}, 0, 0});
  }
  // The first entry from the front with exactly this time and callback, or -1.
  long Find(const OmTimeVal& when, const OmEventCallback* cb) const;
  // A token for the entry at position i that stays valid while others come and go.
  uint64_t Serial(size_t i) const { return items_[i].serial; }
  // Takes out the entry with this token; false when it is no longer listed.
  bool RemoveSerial(uint64_t serial, size_t hint);
  unsigned long Modifications() const { return mods_; }

 private:
  struct Item {
    OmEventTimeout timeout;
    // Packed into one word: an entry a pending request waits on, too.
    uint64_t serial : 63;
    uint64_t batched : 1;
  };
  static bool Same(const Item& a, const Item& b) {
    return a.timeout.time.seconds == b.timeout.time.seconds &&
           a.timeout.time.microseconds == b.timeout.time.microseconds;
  }
  // First position whose time is not below when.
  size_t LowerBound(const OmTimeVal& when) const;
  void RemoveAt(size_t at);
  void QuickSort(long lo, long hi);
  bool StrictlyAscending(long lo, long hi) const;

  std::deque<Item> items_;
  size_t ties_ = 0;  // neighbours with equal times
  uint64_t nextSerial_ = 0;
  unsigned long mods_ = 0;
};

#endif  // QUELM_FOUNDATION_EVENT_OMTIMEOUTLIST_H_
