#ifndef QUELM_HOSTS_HOSTTABLE_H_
#define QUELM_HOSTS_HOSTTABLE_H_

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hosts/Host.h"

// The subscribed hosts in the order they were added, with an index by id.
// A removal leaves a hole; holes are closed once they outnumber the hosts,
// so adding, finding and removing a host cost O(1) on average however many
// hosts there are, and a walk visits at most twice as many slots as hosts.
// Does not own the hosts. Reads like the foundation's OmIList, which it
// replaces for the host list.
class HostTable {
 public:
  class Iterator {
   public:
    Iterator(const std::vector<Host*>& hostSlots, size_t first) : slots(hostSlots), at(first) {
      skipHoles();
    }
    Host* operator*() const { return slots[at]; }
    Iterator& operator++() {
      ++at;
      skipHoles();
      return *this;
    }
    bool operator!=(const Iterator& other) const { return at != other.at; }

   private:
    void skipHoles() {
      while (at < slots.size() && slots[at] == nullptr) ++at;
    }
    const std::vector<Host*>& slots;
    size_t at;
  };

  size_t Length() const { return index.size(); }
  // Changes whenever a host joins or leaves the table.
  uint64_t Revision() const { return revision; }
  bool IsEmpty() const { return index.empty(); }
  Iterator begin() const { return Iterator(slots, 0); }
  Iterator end() const { return Iterator(slots, slots.size()); }

  Host* Find(unsigned id) const {
    const auto it = index.find(id);
    return it == index.end() ? nullptr : slots[it->second];
  }
  // The host's id must not be in the table.
  void Append(Host* host) {
    ++revision;
    index.emplace(host->getId(), slots.size());
    slots.push_back(host);
  }
  // Takes the host with this id out of the table; null when there is none.
  Host* Remove(unsigned id) {
    const auto it = index.find(id);
    if (it == index.end()) return nullptr;
    Host* host = std::exchange(slots[it->second], nullptr);
    index.erase(it);
    ++revision;
    if (slots.size() >= kMinSlotsToCompact && slots.size() > 2 * index.size()) compact();
    return host;
  }
  void Clear() {
    ++revision;
    slots.clear();
    index.clear();
  }

  // The i-th host in order (a walk when holes remain).
  Host* operator[](size_t i) const {
    for (Host* host : *this) {
      if (i-- == 0) return host;
    }
    return nullptr;
  }
  // A copy of the hosts in order, for walks during which the table may change.
  std::vector<Host*> Snapshot() const {
    std::vector<Host*> hosts;
    hosts.reserve(Length());
    for (Host* host : *this) hosts.push_back(host);
    return hosts;
  }

 private:
  static constexpr size_t kMinSlotsToCompact = 64;

  void compact() {
    size_t to = 0;
    for (Host* host : slots) {
      if (host == nullptr) continue;
      index[host->getId()] = to;
      slots[to++] = host;
    }
    slots.resize(to);
  }

  std::vector<Host*> slots;                    // holes are null
  std::unordered_map<unsigned, size_t> index;  // id -> slot
  uint64_t revision = 0;
};

#endif  // QUELM_HOSTS_HOSTTABLE_H_
