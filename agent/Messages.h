#ifndef QUELM_AGENT_MESSAGES_H_
#define QUELM_AGENT_MESSAGES_H_

#include "foundation/string/OmOSStream.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/string/OmUniString.h"

// The probe's message catalogue: one row per message, and one function per
// message that logs its row. The number is what the log library is handed;
// MyLogger's category table is read from the same rows.
struct MessageEntry {
  unsigned number;
  const char* category;  // "quelmloadprobe/<area>/<severity>"
  const char* format;    // {1}, {2}, ... stand for the arguments in order
};

inline constexpr unsigned kMessageCount = 74;
extern const MessageEntry kMessageCatalogue[kMessageCount];

// Bytes of a request or reply that its log copies keep; 0 keeps it whole.
void setRequestCopyLimit(unsigned bytes);
// Copies of one message logged a second at most; the rest are counted and
// the count logged with the next copy written. 0: no limit.
void setMessageRateLimit(unsigned perSecond);

void LogPropsNotFound(const OmUniString& a1);
void LogPathNonExistant(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3);
void LogPathNotDirectory(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3);
void LogScalarAttrNonExistant(const OmUniString& a1, OmScalar<int> a2);
void LogStringAttrNonExistant(const OmUniString& a1, const OmUniString& a2);
void LogScalarAttrBadValue(const OmUniString& a1, OmScalar<int> a2, OmScalar<int> a3);
void LogStringAttrBadValue(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3);
void LogStarted();
void LogStopped(OmScalar<int> a1);
void LogExitSignal(const OmUniString& a1);
void LogBufferFail(OmScalar<int> a1);
void LogForkFail(OmScalar<int> a1);
void LogToolFail(OmScalar<int> a1);
void LogWrongChild(OmScalar<int> a1, OmScalar<int> a2);
void LogPipeFail(OmScalar<int> a1, OmScalar<int> a2);
void LogReadPipeLimitFail(OmScalar<int> a1);
void LogFilterNotRecognised(const OmUniString& a1);
void LogDataNotRecognised(const OmUniString& a1, const OmUniString& a2);
void LogVMemOutOfRange(OmScalar<int> a1, OmScalar<int> a2);
void LogPhysMemOutOfRange(OmScalar<int> a1, OmScalar<int> a2);
void LogReOpenLogFail(const OmUniString& a1);
void LogAttributeLookupFail(const OmUniString& a1);
void LogAddressLookupFail(const OmUniString& a1, OmScalar<unsigned int> a2);
void LogHostTimedOut(const OmUniString& a1, OmScalar<unsigned int> a2);
void LogHostListLen(const OmUniString& a1, OmScalar<unsigned int> a2);
void LogCacheEmpty(const OmUniString& a1);
void LogAcceptFail(const OmUniString& a1);
void LogRemoteAddressFail();
void LogNewConnection(const OmUniString& a1);
void LogBindFailed(OmScalar<unsigned int> a1, const OmUniString& a2);
void LogListenFailed(OmScalar<unsigned int> a1, const OmUniString& a2);
void LogBadCommand(OmScalar<unsigned int> a1, const OmUniString& a2);
void LogResponderBindFailed(const OmUniString& a1);
void LogLoadPacketSent(const OmUniString& a1, const OmInetAddr& a2);
void LogLoadSent(OmScalar<unsigned int> a1, const OmUniString& a2);
void LogLoadPacketFail(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3, OmScalar<unsigned int> a4);
void LogCommandMissing();
void LogSyntaxError(const OmUniString& a1, OmScalar<int> a2, const OmUniString& a3);
void LogCommandText(const OmUniString& a1);
void LogResponseText(const OmUniString& a1);
void LogAttribSetFail(const OmUniString& a1, const OmUniString& a2);
void LogAttribSetSuccess(const OmUniString& a1, const OmUniString& a2);
void LogAttribGetFail(const OmUniString& a1);
void LogResultsCached(OmScalar<int> a1, OmScalar<int> a2, OmScalar<int> a3, OmScalar<int> a4, OmScalar<int> a5);
void LogSpeedRecalculated(OmScalar<int> a1, OmScalar<int> a2, OmScalar<int> a3);
void LogToolBufferLimit(OmScalar<unsigned int> a1);
void LogToolEndedAtOnce(OmScalar<unsigned int> a1, OmScalar<unsigned int> a2);
void LogToolStalled(OmScalar<unsigned int> a1);
void LogPropsMalformed(const OmUniString& a1, const OmUniString& a2, OmScalar<unsigned int> a3);
void LogRunAsFail(const OmUniString& a1, const OmUniString& a2);
void LogRunAsFolder(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3);
void LogConnectionBroken(const OmUniString& a1);
void LogRequestTimedOut(OmScalar<unsigned int> a1);
void LogConnectionLimit(OmScalar<unsigned int> a1);
void LogClientRefused(const OmUniString& a1);
void LogToolStartFailed(const OmUniString& a1, OmScalar<unsigned int> a2);
void LogSubscriberRefused(const OmUniString& a1, const OmUniString& a2);
void LogSubscriberLimit(OmScalar<unsigned int> a1);

void LogReplyPortFailed(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3);
void LogAgentCheckDrain(OmScalar<unsigned int> a1, OmScalar<unsigned int> a2);
void LogAgentCheckReady(OmScalar<unsigned int> a1, OmScalar<unsigned int> a2);
void LogResponderIPv6Failed(const OmUniString& a1);
// The load source and the agent check's pressure.
void LogLoadCgroupUnreadable(const OmUniString& a1, const OmUniString& a2);
void LogLoadCgroupLost(const OmUniString& a1);
void LogAgentCheckPressureDrain(OmScalar<unsigned int> a1);
void LogUnsafeFile(const OmUniString& a1, const OmUniString& a2);
void LogLookUpLimit(const OmUniString& a1, const OmUniString& a2, OmScalar<unsigned int> a3);

// Restarts: the state file, the speed child and the service manager.
void LogStateFileUnreadable(const OmUniString& a1, const OmUniString& a2);
void LogStateFileDamaged(const OmUniString& a1, OmScalar<unsigned int> a2, OmScalar<unsigned int> a3);
void LogStateFileWriteFailed(const OmUniString& a1, const OmUniString& a2);
void LogStateRestored(OmScalar<unsigned int> a1, const OmUniString& a2, OmScalar<unsigned int> a3, OmScalar<unsigned int> a4);
void LogSpeedChildFailed(const OmUniString& a1);
void LogNotifyFailed(const OmUniString& a1, const OmUniString& a2);

#endif  // QUELM_AGENT_MESSAGES_H_
