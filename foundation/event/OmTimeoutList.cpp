#include "foundation/event/OmTimeoutList.h"

#include <utility>

int OmEventTimeout::SortFunction(const OmEventTimeout& other) const {
  if (time.seconds != other.time.seconds) return time.seconds > other.time.seconds ? 1 : -1;
  if (time.microseconds != other.time.microseconds) {
    return time.microseconds > other.time.microseconds ? 1 : -1;
  }
  return 0;
}

size_t OmTimeoutList::LowerBound(const OmTimeVal& when) const {
  const OmEventTimeout probe{nullptr, when};
  size_t lo = 0;
  size_t hi = items_.size();
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    if (items_[mid].timeout.SortFunction(probe) < 0) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo;
}

void OmTimeoutList::Insert(OmEventCallback* cb, const OmTimeVal& when, bool batched) {
  const Item item{{cb, when}, nextSerial_++, batched};
  const size_t at = LowerBound(when);
  const bool tie = at < items_.size() && Same(items_[at], item);
  ++mods_;
  if (ties_ == 0 && !tie) {
    items_.insert(items_.begin() + static_cast<long>(at), item);
    return;
  }
  // Where equal times are listed, the quicksort decides their order, and
  // re-running it may reorder any group of them, not only the new one's.
  items_.push_back(item);
  QuickSort(0, static_cast<long>(Length()) - 1);
  if (tie) ++ties_;
}

OmEventTimeout OmTimeoutList::TakeFirst() {
  const OmEventTimeout first = items_.front().timeout;
  RemoveAt(0);
  return first;
}

long OmTimeoutList::Find(const OmTimeVal& when, const OmEventCallback* cb) const {
  for (size_t i = LowerBound(when); i < items_.size(); ++i) {
    const OmEventTimeout& t = items_[i].timeout;
    if (t.time.seconds != when.seconds || t.time.microseconds != when.microseconds) break;
    if (t.callback == cb) return static_cast<long>(i);
  }
  return -1;
}

bool OmTimeoutList::RemoveSerial(uint64_t serial, size_t hint) {
  if (hint < Length() && items_[hint].serial == serial) {
    RemoveAt(hint);
    return true;
  }
  for (size_t i = 0; i < items_.size(); ++i) {
    if (items_[i].serial == serial) {
      RemoveAt(i);
      return true;
    }
  }
  return false;
}

void OmTimeoutList::RemoveAt(size_t at) {
  const bool left = at > 0 && Same(items_[at - 1], items_[at]);
  const bool right = at + 1 < items_.size() && Same(items_[at], items_[at + 1]);
  if (left || right) --ties_;
  ++mods_;
  if (at == 0) {
    items_.pop_front();
  } else {
    items_.erase(items_.begin() + static_cast<long>(at));
  }
}

bool OmTimeoutList::StrictlyAscending(long lo, long hi) const {
  for (long i = lo; i < hi; ++i) {
    const Item& a = items_[static_cast<size_t>(i)];
    const Item& b = items_[static_cast<size_t>(i) + 1];
    if (b.timeout.SortFunction(a.timeout) <= 0) return false;
  }
  return true;
}

// The list's quicksort, step for step, over listed positions: the middle
// element is the pivot, entries sorting before it are swapped forward in
// scan order. A range already strictly ascending is one the quicksort would
// leave as it is (its order is the only sorted one), so it is skipped; that
// keeps the cost near linear when few times are shared.
void OmTimeoutList::QuickSort(long lo, long hi) {
  auto at = [this](long i) -> Item& { return items_[static_cast<size_t>(i)]; };
  while (hi > lo) {
    if (StrictlyAscending(lo, hi)) return;
    std::swap(at(lo), at((lo + hi) / 2));
    long last = lo;
    for (long i = lo + 1; i <= hi; ++i) {
      if (at(i).timeout.SortFunction(at(lo).timeout) < 0) std::swap(at(++last), at(i));
    }
    std::swap(at(lo), at(last));
    QuickSort(lo, last - 1);
    lo = last + 1;
  }
}
