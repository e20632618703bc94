#include "command/Quelm_LbsTransmission.h"

#include <algorithm>

#include "agent/Messages.h"

const OmUniString Quelm_LbsTransmission::commandArray[arraySize] = {"CREATE", "KILL", "ADMIN",
                                                                     "GET"};
const OmUniString Quelm_LbsTransmission::GET_STRING("GET /?get&znalbinfo");
const OmUniString Quelm_LbsTransmission::KEY_HOST("host");
const OmUniString Quelm_LbsTransmission::KEY_PORT("port");
const OmUniString Quelm_LbsTransmission::KEY_SAMPLERATE("samplerate");
const OmUniString Quelm_LbsTransmission::KEY_WINDOWSIZE("windowsize");
const OmUniString Quelm_LbsTransmission::KEY_REPLYFREQUENCY("replyfreq");
const OmUniString Quelm_LbsTransmission::KEY_PERCENTCHANGE("percentchange");
const OmUniString Quelm_LbsTransmission::KEY_STAT("stat");
const OmUniString Quelm_LbsTransmission::KEY_VERSION("version");
const OmUniString Quelm_LbsTransmission::KEY_ID("id");
const OmUniString Quelm_LbsTransmission::KEY_ZNALBINFO("znalbinfo");

namespace {

const OmUniString kRequestElement("znalbreq");
const OmUniString kSyntaxErrorText("Syntax error in attribute name");
const OmUniString kUnclosedQuoteText("Quoted value not terminated with a close quote");

// The text arrives as bytes widened to 16-bit units; only the low byte of a
// unit decides whether it is one of the markup characters.
bool Is(OmUniString::Unit u, char c) {
  return (u & 0xFF) == static_cast<unsigned char>(c);
}

// Index of the first unit in [from, end) that is c, or -1.
long Find(const OmUniString& s, long from, long end, char c) {
  for (long i = from; i < end; ++i) {
    if (Is(s[i], c)) return i;
  }
  return -1;
}

}  // namespace

Quelm_LbsTransmission::Quelm_LbsTransmission(OmUniString& raw) : rawTransmission(raw) {
  OmUniString rest;
  if (raw.Search(GET_STRING) >= 0) {
    // The get line may sit inside a whole HTTP request; nothing else is read.
    currentValue = commandTable[static_cast<int>(LbsCommand::GET)];
  } else {
    // The root's return value is not needed: without an end tag the command
    // is still read from the start tag, and rest simply stays empty.
    parseAttribute(raw, rest);
    if (currentElementWord != kRequestElement) return;

    // Whatever name stands before the '=' is accepted.
    const long contentLength = static_cast<long>(currentName.Length());
    const long eq = Find(currentName, 0, contentLength, '=');
    position = static_cast<int>(eq >= 0 ? eq + 1 : contentLength + 1);
    length = static_cast<int>(contentLength);
    parseValue(currentName);
    currentValue = currentValue.Uppered();
  }

  for (int i = 0; i < commandTableSize; ++i) {
    if (currentValue == commandTable[i]) {
      command = static_cast<LbsCommand>(i);
      break;
    }
  }

  OmUniString value;
  while (!rest.IsEmpty()) {
    const int n = parseAttribute(rest, value);
    if (n == 0) break;
    attributes.addAttribute(currentName, value);
    rest = rest.SubString(static_cast<unsigned long>(n) + 1);
  }
}

OmUniString Quelm_LbsTransmission::showCommand(LbsCommand c) const {
  const int i = static_cast<int>(c);
  if (i >= 0 && i < arraySize) return commandArray[i];
  return OmUniString("UNKNOWN");
}

int Quelm_LbsTransmission::parseAttribute(const OmUniString& in, OmUniString& value) {
  currentElementWord = OmUniString();
  const long len = static_cast<long>(in.Length());
  if (len == 0) return syntaxError(in, 1);

  // Start tag: the name runs from just after the last '<' to the first '>'.
  // Every space sets the element word to the text from that same start up to
  // the space, so only a single space after the name leaves the bare name.
  long start = 0;
  long wordStart = -1;
  long wordEnd = -1;
  long close = -1;
  for (long i = 0; i < len; ++i) {
    const OmUniString::Unit u = in[i];
    if (Is(u, KEY_START)) {
      start = i + 1;
    } else if (Is(u, ' ')) {
      wordStart = start;
      wordEnd = i;
    } else if (Is(u, KEY_END)) {
      close = i;
      break;
    }
  }
  if (wordStart >= 0) {
    currentElementWord = in.SubString(wordStart, wordEnd - wordStart).Lowered();
  }
  if (close < 0) return syntaxError(in, len);
  currentName = in.SubString(start, close - start).Lowered();

  // End tag: the first "</name>" naming either the whole tag content or the
  // element word. Other tags in between belong to the value.
  long p = close + 1;
  while (p < len) {
    if (Is(in[p], KEY_START) && p + 1 < len && Is(in[p + 1], KEY_STOP)) {
      const long q = Find(in, p + 2, len, KEY_END);
      if (q < 0) return syntaxError(in, len + 1);
      const OmUniString endName = in.SubString(p + 2, q - p - 2).Lowered();
      if (endName == currentName || endName == currentElementWord) {
        value = in.SubString(close + 1, p - close - 1);
        if (endName.IsEmpty()) LogAttributeLookupFail(in);
        return static_cast<int>(q);
      }
      p = q + 1;
    } else if (Is(in[p], KEY_START)) {
      p += 2;
    } else {
      p += 1;
    }
  }
  return syntaxError(in, p);
}

bool Quelm_LbsTransmission::parseValue(const OmUniString& tag) {
  const long end = std::min(static_cast<long>(length), static_cast<long>(tag.Length()));
  long pos = std::max(position, 0);
  if (pos < end && Is(tag[pos], QUOTE_OPEN)) {
    ++pos;
    position = static_cast<int>(pos);
    const long closeQuote = pos < end ? Find(tag, pos, end, QUOTE_CLOSE) : -1;
    if (closeQuote < 0) {
      // Kept for inspection only; the caller just sees no command word.
      errorText = kUnclosedQuoteText;
      return false;
    }
    currentValue = tag.SubString(pos, closeQuote - pos);
    return true;
  }
  currentValue = pos < end ? tag.SubString(pos, end - pos) : OmUniString();
  return true;
}

int Quelm_LbsTransmission::syntaxError(const OmUniString& in, long position) {
  LogSyntaxError(in, OmScalar<int>(static_cast<int>(position)), kSyntaxErrorText);
  return 0;
}
