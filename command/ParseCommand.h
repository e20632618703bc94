#ifndef QUELM_COMMAND_PARSECOMMAND_H_
#define QUELM_COMMAND_PARSECOMMAND_H_

#include <cstdint>
#include <string>

#include "foundation/event/OmCallback.h"
#include "foundation/string/OmOSStream.h"
#include "foundation/string/OmUniString.h"

class Host;
class Quelm_LbsTransmission;

// Executes one command transmission and builds its reply document. One
// instance serves exactly one request: its streams are never cleared.
// Attribute errors are collected and answered together in an error document;
// nothing is executed unless every check passed.
class ParseCommand {
 public:
  static const OmUniString MYVERSION;
  static const OmUniString CPU;
  static const OmUniString BOGO;
  static const OmUniString VMEM;
  static const OmUniString GET;
  static const OmUniString NOTIMPL;
  static const OmUniString ZNALBINFO_ERROR;

  static const OmUniString XMLVERSION;
  static const OmUniString GET_REPLY_START;
  static const OmUniString CREATE_REPLY_START;
  static const OmUniString KILL_REPLY_START;
  static const OmUniString ADMIN_REPLY_START;
  static const OmUniString ERROR_REPLY_START;
  static const OmUniString REPLY_END;
  static const OmUniString VERSION_START;
  static const OmUniString VERSION_END;
  static const OmUniString ERROR_START;
  static const OmUniString ERROR_END;
  static const OmUniString CONNECTION_START;
  static const OmUniString CONNECTION_END;
  static const OmUniString ID_START;
  static const OmUniString ID_END;
  static const OmUniString HOST_START;
  static const OmUniString HOST_END;
  static const OmUniString PORT_START;
  static const OmUniString PORT_END;
  static const OmUniString REPLYFREQUENCY_START;
  static const OmUniString REPLYFREQUENCY_END;
  static const OmUniString PERCENTCHANGE_START;
  static const OmUniString PERCENTCHANGE_END;
  static const OmUniString SAMPLERATE_START;
  static const OmUniString SAMPLERATE_END;
  static const OmUniString WINDOWSIZE_START;
  static const OmUniString WINDOWSIZE_END;
  static const OmUniString STAT_START;
  static const OmUniString STAT_END;
  static const OmUniString TIME_START;
  static const OmUniString TIME_END;
  static const OmUniString SEQNO_START;
  static const OmUniString SEQNO_END;
  static const OmUniString ZNALBDATA_START;
  static const OmUniString ZNALBDATA_END;
  static const OmUniString ZNALBKILL_START;
  static const OmUniString ZNALBKILL_END;
  static const OmUniString STAT_IDLE_START;
  static const OmUniString STAT_BOGO_START;
  static const OmUniString STAT_VMEM_START;
  static const OmUniString STAT_MAXVMEM_START;
  static const OmUniString STAT_PMEM_START;
  static const OmUniString STAT_MAXPMEM_START;
  static const OmUniString STAT_SWAPIN_START;
  static const OmUniString STAT_SWAPOUT_START;
  static const OmUniString NO_UPDATES;

  static const OmUniString PARSING_ERROR;
  static const OmUniString VERSION_ERROR;
  static const OmUniString HOST_ERROR;
  static const OmUniString PORT_ERROR;
  static const OmUniString SAMPLERATE_ERROR;
  static const OmUniString WINDOWSIZE_ERROR;
  static const OmUniString ID_ERROR;
  static const OmUniString REPLYFREQUENCY_ERROR;
  static const OmUniString PERCENTCHANGE_ERROR;
  static const OmUniString STAT_ERROR;
  static const OmUniString HOST_NOT_CREATED;
  static const OmUniString HOST_ID_START;
  static const OmUniString HOST_ID_NOT_FOUND;
  static const OmUniString NOT_IMPLEMENTED;

  ParseCommand() = default;
  ~ParseCommand();
  ParseCommand(const ParseCommand&) = delete;
  ParseCommand& operator=(const ParseCommand&) = delete;

  // Runs the request and returns a complete reply document. The percent
  // escapes of text are undone in place.
  OmUniString& doCommand(OmUniString& text);

  // A create whose subscriber's name is looked up in the background hands
  // its reply to cb once the host is made or refused; without cb such a
  // create waits for the look-up in place. Not owned.
  void setLateReply(OmCallback<const OmUniString&>* cb) { lateReply = cb; }
  // doCommand returned no reply: it comes through the late-reply callback.
  bool isPending() const { return pending; }
  // The address of the client that sent the request (its look-ups are
  // counted against it); empty when unknown.
  void setClient(const std::string& address) { client = address; }

 private:
  // The replies of the commands; only doCommand calls them, after every
  // check passed and while the transmission (and so stats) is alive.
  OmUniString& doGetStatus();
  void buildGetReply();
  OmUniString& doCreateHost();
  OmUniString& doKill();
  OmUniString& doAdmin();

  // Runs the checks of one command; false when any of them failed.
  bool checkCreate(Quelm_LbsTransmission& transmission);
  bool checkKill(Quelm_LbsTransmission& transmission);
  bool checkAdmin(Quelm_LbsTransmission& transmission);
  // Port, sample rate and window size, present and non-zero, in that order.
  bool checkPortAndSampling(Quelm_LbsTransmission& transmission);
  // Reads a number that must be present and non-zero into field.
  bool requireNonZero(Quelm_LbsTransmission& transmission, const OmUniString& key,
                      unsigned& field, const OmUniString& error, unsigned max = UINT32_MAX);
  // A create's or kill's number as field: read as the integer conversion
  // reads it, or, with strict requests, only whole decimal digits up to max.
  bool readNumber(const OmUniString& text, unsigned max, unsigned& field) const;

  void createdCB(OmCallback<Host*>* cb, Host* host);
  OmUniString& createdReply(bool created);
  OmUniString& errorReply(const OmUniString& error);
  OmUniString& finish();
  void writeVersion();

  OmOSStream errors;
  OmOSStream reply;
  OmUniString host;
  unsigned port = 0;
  unsigned samplerate = 0;
  unsigned windowsize = 0;
  unsigned replyfreq = 0;
  unsigned percentchange = 0;
  unsigned id = 0;
  OmUniString version = MYVERSION;
  // Values of the transmission's "stat" attributes; valid only during doCommand.
  OmUniString* stats[3] = {nullptr, nullptr, nullptr};
  OmUniString replyText;  // the finished reply, returned by reference
  unsigned mask = 0;      // the stats a create asked for
  bool pending = false;
  bool strict = false;  // the numbers of this create or kill must be whole and fit
  std::string client;
  OmCallback<const OmUniString&>* lateReply = nullptr;
  OmSimpleCallback<Host*, ParseCommand> createdCallback{this, &ParseCommand::createdCB};
};

#endif  // QUELM_COMMAND_PARSECOMMAND_H_
