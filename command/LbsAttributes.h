#ifndef QUELM_COMMAND_LBSATTRIBUTES_H_
#define QUELM_COMMAND_LBSATTRIBUTES_H_

#include "foundation/string/OmUniString.h"

// One named value of a command transmission.
struct LbsAttribute {
  LbsAttribute(const OmUniString& n, const OmUniString& v) : name(n), value(v) {}

  OmUniString name;
  OmUniString value;
  LbsAttribute* next = nullptr;
};

// The attributes of one transmission, in arrival order. A name may occur
// more than once (several "stat" elements, say); lookups take the earliest.
class LbsAttributes {
 public:
  // Pads the unused slots of getAllByName; callers must not write through it.
  static const OmUniString NULLSTRING;

  LbsAttributes() = default;
  ~LbsAttributes();
  LbsAttributes(const LbsAttributes&) = delete;
  LbsAttributes& operator=(const LbsAttributes&) = delete;

  // Appends a copy of (name, value) at the tail; always returns 1.
  int addAttribute(const OmUniString& name, const OmUniString& value);

  // Copies the value of the first attribute whose name equals name exactly
  // (case-sensitive). Leaves value untouched and returns false when none does.
  bool getByName(const OmUniString& name, OmUniString& value) const;

  // Points out[0..max) at the values of the first max attributes named name,
  // in arrival order, and the remaining slots at NULLSTRING. The pointers stay
  // valid while this list lives. Returns whether any attribute matched.
  bool getAllByName(const OmUniString& name, OmUniString** out, int max);

  unsigned int getCount() const { return count; }
  const LbsAttribute* getHead() const { return head; }

 private:
  LbsAttribute* head = nullptr;
  LbsAttribute* tail = nullptr;
  unsigned int count = 0;
};

#endif  // QUELM_COMMAND_LBSATTRIBUTES_H_
