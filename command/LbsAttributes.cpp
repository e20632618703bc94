#include "command/LbsAttributes.h"

const OmUniString LbsAttributes::NULLSTRING;

LbsAttributes::~LbsAttributes() {
  while (head != nullptr) {
    LbsAttribute* next = head->next;
    delete head;
    head = next;
  }
}

int LbsAttributes::addAttribute(const OmUniString& name, const OmUniString& value) {
  LbsAttribute* attribute = new LbsAttribute(name, value);
  if (tail == nullptr) {
    head = attribute;
  } else {
    tail->next = attribute;
  }
  tail = attribute;
  ++count;
  return 1;
}

bool LbsAttributes::getByName(const OmUniString& name, OmUniString& value) const {
  for (const LbsAttribute* a = head; a != nullptr; a = a->next) {
    if (a->name == name) {
      value = a->value;
      return true;
    }
  }
  return false;
}

bool LbsAttributes::getAllByName(const OmUniString& name, OmUniString** out, int max) {
  int found = 0;
  for (LbsAttribute* a = head; a != nullptr && found < max; a = a->next) {
    if (a->name == name) out[found++] = &a->value;
  }
  bool any = found > 0;
  // The padding is shared by every list; callers only read through it.
  for (; found < max; ++found) out[found] = const_cast<OmUniString*>(&NULLSTRING);
  return any;
}
