// Any request text through the transmission parser: it must never crash or
// hang, and what it returns must hang together.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "agent/MyLogger.h"
#include "command/LbsAttributes.h"
#include "command/Quelm_LbsTransmission.h"
#include "foundation/log/OmLog.h"
#include "foundation/string/OmUniString.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

// Messages are formatted as in the probe but go nowhere.
void silentLogs() {
  OmLog::InitLogs(&mylog, OmUniString("/tmp"));
  mylog.SetupCSFilters({});
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  silentLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The request circuit decodes the bytes as Latin-1.
  OmUniString raw = OmUniString::CreateFrom(data, size, OmEncoding::LATIN1);
  const OmUniString original = raw;
  Quelm_LbsTransmission transmission(raw);

  check(&transmission.getRawTransmission() == &raw);
  check(raw == original);  // the parser only reads the text
  check(transmission.isValid());

  const LbsCommand command = transmission.getCommand();
  const int c = static_cast<int>(command);
  check((c >= 0 && c < Quelm_LbsTransmission::arraySize) || command == LbsCommand::UNKNOWN);
  check(!transmission.showCommand(command).IsEmpty());

  LbsAttributes& attributes = transmission.getAttributes();
  if (raw.Search(Quelm_LbsTransmission::GET_STRING) >= 0) {
    check(command == LbsCommand::GET);
    check(attributes.getCount() == 0);
  }

  // The list and its count agree; names are stored lower-cased.
  unsigned walked = 0;
  for (const LbsAttribute* a = attributes.getHead(); a != nullptr; a = a->next) {
    ++walked;
    check(a->name == a->name.Lowered());
  }
  check(walked == attributes.getCount());

  // Every stored name is found, first arrival first; getAllByName pads.
  constexpr int kMax = 4;
  for (const LbsAttribute* a = attributes.getHead(); a != nullptr; a = a->next) {
    OmUniString value;
    check(attributes.getByName(a->name, value));
    int matches = 0;
    const LbsAttribute* first = nullptr;
    for (const LbsAttribute* b = attributes.getHead(); b != nullptr; b = b->next) {
      if (b->name != a->name) continue;
      if (first == nullptr) first = b;
      ++matches;
    }
    check(first != nullptr && value == first->value);

    OmUniString* out[kMax] = {};
    check(attributes.getAllByName(a->name, out, kMax));
    const int filled = matches < kMax ? matches : kMax;
    const LbsAttribute* b = attributes.getHead();
    for (int i = 0; i < kMax; ++i) {
      check(out[i] != nullptr);
      if (i >= filled) {
        check(out[i] == &LbsAttributes::NULLSTRING);
        continue;
      }
      while (b->name != a->name) b = b->next;
      check(out[i] == &b->value);
      b = b->next;
    }
  }

  // The keys command execution asks for, present or not.
  const OmUniString* keys[] = {
      &Quelm_LbsTransmission::KEY_HOST,       &Quelm_LbsTransmission::KEY_PORT,
      &Quelm_LbsTransmission::KEY_SAMPLERATE, &Quelm_LbsTransmission::KEY_WINDOWSIZE,
      &Quelm_LbsTransmission::KEY_REPLYFREQUENCY, &Quelm_LbsTransmission::KEY_PERCENTCHANGE,
      &Quelm_LbsTransmission::KEY_STAT,       &Quelm_LbsTransmission::KEY_VERSION,
      &Quelm_LbsTransmission::KEY_ID};
  for (const OmUniString* key : keys) {
    OmUniString value("untouched");
    const bool found = attributes.getByName(*key, value);
    if (!found) check(value == "untouched");
    OmUniString* out[3] = {};
    check(attributes.getAllByName(*key, out, 3) == found);
    for (OmUniString* v : out) check(v != nullptr);
    if (found) check(*out[0] == value);
  }
  return 0;
}
