#ifndef QUELM_FOUNDATION_PROPERTIES_OMDICTIONARY_H_
#define QUELM_FOUNDATION_PROPERTIES_OMDICTIONARY_H_

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

// A hash table of owned entries keyed by T::Key() (a string with Buffer()).
// The bucket of a key is the hash of its bytes modulo the bucket count. The
// table grows fourfold once the entry count reaches the rebuild threshold,
// while the rebuild budget lasts. Iteration is in table order: buckets by
// index, the entries of a bucket in insertion order.
template <typename T>
class OmDictionary {
 public:
  explicit OmDictionary(uint32_t buckets = 4, uint32_t expiryLimit = 0)
      : buckets_(buckets == 0 ? 1 : buckets),
        table_(buckets_),
        threshold_(3 * buckets_),
        expiryLimit_(expiryLimit) {}
  OmDictionary(const OmDictionary&) = delete;
  OmDictionary& operator=(const OmDictionary&) = delete;

  // Takes the entry unless one with an equal key exists (then it is dropped
  // and the result is false).
  bool Insert(std::unique_ptr<T> entry) {
    if (count_ >= threshold_) RebuildTable();
    Bucket& bucket = table_[FindBucket(entry->Key())];
    for (const auto& e : bucket) {
      if (e->Key() == entry->Key()) return false;
    }
    bucket.push_back(std::move(entry));
    ++count_;
    return true;
  }

  template <typename K>
  T* Find(const K& key) const {
    for (const auto& e : table_[FindBucket(key)]) {
      if (e->Key() == key) return e.get();
    }
    return nullptr;
  }

  // Deletes the entry with this key; false when there is none.
  template <typename K>
  bool Remove(const K& key) {
    Bucket& bucket = table_[FindBucket(key)];
    for (auto it = bucket.begin(); it != bucket.end(); ++it) {
      if ((*it)->Key() == key) {
        bucket.erase(it);
        --count_;
        return true;
      }
    }
    return false;
  }

  uint32_t Length() const { return count_; }
  uint32_t BucketCount() const { return buckets_; }
  uint32_t RebuildThreshold() const { return threshold_; }
  uint32_t RebuildBudget() const { return budget_; }
  void SetExpiryLimit(uint32_t limit) { expiryLimit_ = limit; }

  // Deletes every entry; the table keeps its size.
  void Flush() {
    for (auto& bucket : table_) bucket.clear();
    count_ = 0;
  }

  template <typename K>
  uint32_t FindBucket(const K& key) const {
    return key.Buffer().HashValue() % buckets_;
  }

  // Four times the buckets and threshold; each rebuild spends 2 of the budget
  // so the bucket count cannot run past 32 bits.
  void RebuildTable() {
    if (budget_ < 2) return;
    budget_ -= 2;
    buckets_ *= 4;
    threshold_ *= 4;
    std::vector<Bucket> old(buckets_);
    old.swap(table_);
    for (auto& bucket : old) {
      for (auto& e : bucket) {
        uint32_t index = FindBucket(e->Key());
        table_[index].push_back(std::move(e));
      }
    }
  }

  // While there are more entries than the expiry limit, drops the oldest
  // entry of each bucket in turn, starting at a random bucket, for at most
  // six rounds over the table. Returns the number dropped.
  uint32_t Expire() {
    uint32_t dropped = 0;
    if (count_ <= expiryLimit_) return 0;
    uint32_t start = static_cast<uint32_t>(rand()) % buckets_;
    for (uint64_t step = 0; step < 6ULL * buckets_ && count_ > expiryLimit_; ++step) {
      Bucket& bucket = table_[(start + step) % buckets_];
      if (bucket.empty()) continue;
      bucket.erase(bucket.begin());
      --count_;
      ++dropped;
    }
    return dropped;
  }

  // Calls f(const T&) for each entry in table order.
  template <typename F>
  void ForEach(F f) const {
    for (const auto& bucket : table_) {
      for (const auto& e : bucket) f(*e);
    }
  }

 private:
  using Bucket = std::vector<std::unique_ptr<T>>;

  uint32_t buckets_;
  std::vector<Bucket> table_;
  uint32_t count_ = 0;
  uint32_t threshold_;
  uint32_t budget_ = 28;
  uint32_t expiryLimit_;
};

#endif  // QUELM_FOUNDATION_PROPERTIES_OMDICTIONARY_H_
