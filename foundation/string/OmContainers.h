#ifndef QUELM_FOUNDATION_STRING_OMCONTAINERS_H_
#define QUELM_FOUNDATION_STRING_OMCONTAINERS_H_

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

// Small containers on which the agent keeps its lists. Iteration order is
// insertion order; removal moves later entries down (compaction).

// A list of values.
template <typename T>
class OmDList {
 public:
  void Append(const T& v) { items_.push_back(v); ++mods_; }
  void Append(T&& v) { items_.push_back(std::move(v)); ++mods_; }
  void RemoveAt(size_t i) { items_.erase(items_.begin() + static_cast<long>(i)); ++mods_; }
  void Clear() { items_.clear(); ++mods_; }
  size_t Length() const { return items_.size(); }
  bool IsEmpty() const { return items_.empty(); }
  T& operator[](size_t i) { return items_[i]; }
  const T& operator[](size_t i) const { return items_[i]; }
  T& First() { return items_.front(); }
  unsigned long Modifications() const { return mods_; }
  auto begin() { return items_.begin(); }
  auto end() { return items_.end(); }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

 private:
  std::vector<T> items_;
  unsigned long mods_ = 0;
};

template <typename T>
using OmDVector = OmDList<T>;

// A list of pointers; it does not own them.
template <typename T>
class OmIList {
 public:
  void Append(T* p) { items_.push_back(p); ++mods_; }
  void RemoveAt(size_t i) { items_.erase(items_.begin() + static_cast<long>(i)); ++mods_; }
  bool Remove(T* p) {
    auto it = std::find(items_.begin(), items_.end(), p);
    if (it == items_.end()) return false;
    items_.erase(it);
    ++mods_;
    return true;
  }
  bool Contains(const T* p) const { return std::find(items_.begin(), items_.end(), p) != items_.end(); }
  void Clear() { items_.clear(); ++mods_; }
  size_t Length() const { return items_.size(); }
  bool IsEmpty() const { return items_.empty(); }
  T* operator[](size_t i) const { return items_[i]; }
  T*& At(size_t i) { return items_[i]; }
  unsigned long Modifications() const { return mods_; }
  void Swap(size_t a, size_t b) { std::swap(items_[a], items_[b]); }
  // A copy of the pointers, for walks during which the list may change.
  std::vector<T*> Snapshot() const { return items_; }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

 private:
  std::vector<T*> items_;
  unsigned long mods_ = 0;
};

// Pointers indexed directly by a small number (a descriptor, a signal).
// Grows to the next multiple of the step above the index; empty slots are null.
template <typename T>
class OmISparseArray {
 public:
  explicit OmISparseArray(size_t step = 10) : step_(step), slots_(step, nullptr) {}
  T* Get(size_t i) const { return i < slots_.size() ? slots_[i] : nullptr; }
  void Set(size_t i, T* p) {
    if (i >= slots_.size()) slots_.resize((i / step_ + 1) * step_, nullptr);
    slots_[i] = p;
  }
  size_t Size() const { return slots_.size(); }

 private:
  size_t step_;
  std::vector<T*> slots_;
};

// A pointer list kept in order by T::SortFunction (negative: earlier).
template <typename T>
class OmISortedList : public OmIList<T> {
 public:
  void Insert(T* p) {
    this->Append(p);
    DoSort(0, static_cast<long>(this->Length()) - 1);
  }
  // The list's own quicksort; equal entries end up in whatever order it leaves.
  void DoSort(long lo, long hi) {
    while (hi > lo) {
      this->Swap(static_cast<size_t>(lo), static_cast<size_t>((lo + hi) / 2));
      long last = lo;
      for (long i = lo + 1; i <= hi; ++i) {
        if ((*this)[static_cast<size_t>(i)]->SortFunction(*(*this)[static_cast<size_t>(lo)]) < 0) {
          ++last;
          this->Swap(static_cast<size_t>(last), static_cast<size_t>(i));
        }
      }
      this->Swap(static_cast<size_t>(lo), static_cast<size_t>(last));
      DoSort(lo, last - 1);
      lo = last + 1;
    }
  }
};

#endif  // QUELM_FOUNDATION_STRING_OMCONTAINERS_H_
