#ifndef QUELM_COMMAND_QUELM_LBSTRANSMISSION_H_
#define QUELM_COMMAND_QUELM_LBSTRANSMISSION_H_

#include "command/LbsAttributes.h"
#include "foundation/string/OmUniString.h"

// The request commands, numbered by their place in
// Quelm_LbsTransmission::commandArray.
enum class LbsCommand : int { CREATE = 0, KILL = 1, ADMIN = 2, GET = 3, UNKNOWN = 255 };

// Reads one command transmission: either a get line ("GET /?get&znalbinfo"
// anywhere in the text) or a small tagged document
//   <znalbreq type="create"><host>10.1.2.3</host>...</znalbreq>
// The reading is positional, not XML: the root start tag must be "znalbreq"
// followed by exactly one space, element names and the command word are
// case-insensitive, values are kept verbatim. Nothing fails as a whole; what
// cannot be read is logged and left out, and an unreadable command is UNKNOWN.
class Quelm_LbsTransmission {
 public:
  static const OmUniString commandArray[];
  static constexpr int arraySize = 4;
  static const OmUniString GET_STRING;
  static const OmUniString KEY_HOST;
  static const OmUniString KEY_PORT;
  static const OmUniString KEY_SAMPLERATE;
  static const OmUniString KEY_WINDOWSIZE;
  static const OmUniString KEY_REPLYFREQUENCY;
  static const OmUniString KEY_PERCENTCHANGE;
  static const OmUniString KEY_STAT;
  static const OmUniString KEY_VERSION;
  static const OmUniString KEY_ID;
  static const OmUniString KEY_ZNALBINFO;
  static constexpr char KEY_START = '<';
  static constexpr char KEY_END = '>';
  static constexpr char KEY_STOP = '/';
  static constexpr char QUOTE_OPEN = '"';
  static constexpr char QUOTE_CLOSE = '"';

  // Parses raw at once. raw is referenced, not copied: it must outlive this.
  explicit Quelm_LbsTransmission(OmUniString& raw);
  Quelm_LbsTransmission(const Quelm_LbsTransmission&) = delete;
  Quelm_LbsTransmission& operator=(const Quelm_LbsTransmission&) = delete;

  LbsCommand getCommand() const { return command; }
  LbsAttributes& getAttributes() { return attributes; }
  OmUniString& getRawTransmission() { return rawTransmission; }
  bool isValid() const { return valid; }
  // The command's name, or "UNKNOWN" outside the table.
  OmUniString showCommand(LbsCommand c) const;

  // Reads the first element of in: its start tag sets the current name (and
  // the current element word when the tag holds a space), value receives the
  // text up to the matching end tag. Returns the index of the '>' ending that
  // end tag, or 0 after logging a syntax error.
  int parseAttribute(const OmUniString& in, OmUniString& value);

  // Reads the value at the stored position (after the '=') of a start tag's
  // content, up to the stored length, into the current value. A quoted value
  // ends at the next quote; false when that quote is missing.
  bool parseValue(const OmUniString& tag);

 private:
  int syntaxError(const OmUniString& in, long position);

  bool valid = true;
  int position = 0;
  int length = 0;
  OmUniString currentName;
  OmUniString currentValue;
  OmUniString currentElementWord;
  LbsAttributes attributes;
  OmUniString errorText;
  OmUniString spareText;  // carried along, never read
  OmUniString& rawTransmission;
  LbsCommand command = LbsCommand::UNKNOWN;
  const OmUniString* commandTable = commandArray;
  int commandTableSize = arraySize;
};

#endif  // QUELM_COMMAND_QUELM_LBSTRANSMISSION_H_
