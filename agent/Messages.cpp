#include "agent/Messages.h"

#include <initializer_list>
#include <string>
#include <utility>

#include "foundation/log/OmLog.h"
#include "foundation/string/OmTimeVal.h"

// Severity by message: fatalerror for 9, 10, 11, 15, 28, 29, 31; info for 6,
// 7, 8, 12, 14, 22, 27, 33, 37, 38, 43; moreinfo for 23, 32, 40, 42; error
// for the others. The texts' oddities (the stray period in 41, the missing
// verb in 20, the trailing space of 33) are part of what operators grep for.
const MessageEntry kMessageCatalogue[kMessageCount] = {
    {0, "quelmloadprobe/initialize/error",  // LogPropsNotFound
     "The properties file {1} was not found. The quelm loadprobe has been initialized\n"
     "using built-in defaults.\n"
     "The most likely cause is incorrect configuration or installation.\n"
     "Create the {1} file or reinstall the Varosakit."},
    {1, "quelmloadprobe/initialize/error",  // LogPathNonExistant
     "The path or object {1} does not exist. Using the built-in default {2} for the\n"
     "attribute {3}. The quelm loadprobe may not function correctly.\n"
     "The most likely cause is incorrect configuration. \n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {2, "quelmloadprobe/initialize/error",  // LogPathNotDirectory
     "The path {1} does not exist or is not a directory. Using the built-in default {2} for the attribute {3}. The quelm loadprobe may not function correctly.\n"
     "The most likely cause is incorrect configuration. \n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {3, "quelmloadprobe/initialize/error",  // LogScalarAttrNonExistant
     "The attribute {1} does not exist in the quelmloadprobe.properties file. The built-in default value {2} will be used.\n"
     "The most likely cause is incorrect configuration.\n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {4, "quelmloadprobe/initialize/error",  // LogStringAttrNonExistant
     "The attribute {1} does not exist in the quelmloadprobe.properties file. The built-in default value {2} will be used.\n"
     "The most likely cause is incorrect configuration.\n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {5, "quelmloadprobe/initialize/error",  // LogScalarAttrBadValue
     "The attribute {1} has the value {2} which is invalid. The built-in default value {3} will be used instead.\n"
     "The most likely cause is incorrect configuration.\n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {6, "quelmloadprobe/process/info",  // LogStarted
     "Quelm loadprobe started."},
    {7, "quelmloadprobe/process/info",  // LogStopped
     "Quelm loadprobe stopped - exitcode {1}."},
    {8, "quelmloadprobe/process/info",  // LogExitSignal
     "The loadprobe was stopped by signal {1}."},
    {9, "quelmloadprobe/child/fatalerror",  // LogBufferFail
     "Failed to malloc/realloc {1} bytes for loadtool pipe buffer.\n"
     "Quelm loadprobe will not work.\n"
     "Free memory by killing unwanted processes."},
    {10, "quelmloadprobe/child/fatalerror",  // LogForkFail
     "Failed to fork a child process after {1} retries.\n"
     "The quelm loadprobe will not work.\n"
     "Kill off unwanted processes and restart the quelm loadprobe."},
    {11, "quelmloadprobe/child/fatalerror",  // LogToolFail
     "The tool (sar/iostat/vmstat) being used to measure load did not return any data on {1} successive iterations.\n"
     "The most likely cause is incorrect configuration of the tool or its arguments.\n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {12, "quelmloadprobe/child/info",  // LogWrongChild
     "There has been a signal for child process with pid {1} which is not the current child process({2}) of the quelm loadtool.\n"
     "No action is necessary."},
    {13, "quelmloadprobe/child/error",  // LogPipeFail
     "Failure reading {1} bytes from loadtool (sar/iostat/vmstat); errno is {2}.\n"
     "Quelm loadprobe cannot return data.\n"
     "Check the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {14, "quelmloadprobe/child/info",  // LogReadPipeLimitFail
     "The pipe being used to read data from the loadtool (sar/iostat/vmstat) did not return any data on {1} successive reads.\n"
     "No action is necessary."},
    {15, "quelmloadprobe/child/fatalerror",  // LogFilterNotRecognised
     "The filter named {1} was not recognised. This filter may not be implemented on this platform. \n"
     "Quelm loadprobe cannot return data.\n"
     "Check the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {16, "quelmloadprobe/child/error",  // LogDataNotRecognised
     "The data returned by {1} has not been recognised by the data filter. \n"
     "The data was \n"
     "{2}\n"
     "The quelm loadprobe has not cached any load values as a result in this cycle.\n"
     "No action is necessary unless the problem occurs continuously, in which case check the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {17, "quelmloadprobe/child/error",  // LogVMemOutOfRange
     "The used/free virtual memory measured ({1} Kb) exceeds the amount configured in quelmloadprobe.properties ({2} Kb).\n"
     "Resulting virtual memory usage measurements will be inaccurate.\n"
     "Correct the maxvirtualmemory value in quelmloadprobe.properties and restart the quelm loadprobe."},
    {18, "quelmloadprobe/child/error",  // LogPhysMemOutOfRange
     "The used/free real memory measured ({1} Kb) exceeds the amount configured in quelmloadprobe.properties ({2} Kb).\n"
     "Resulting real memory usage measurements will be inaccurate.\n"
     "Correct the maxrealmemory value in quelmloadprobe.properties and restart the quelm loadprobe."},
    {19, "quelmloadprobe/log/error",  // LogReOpenLogFail
     "Failed to reopen log files. No logs will be recorded.\n"
     " Check the log directory {1} exists.\n"
     "To ensure correct log information, restart the Quelm loadprobe."},
    {20, "quelmloadprobe/attribute/error",  // LogAttributeLookupFail
     "Failed to any attributes in {1}.\n"
     "The quelm loadprobe may not return data.\n"
     "Check the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {21, "quelmloadprobe/host/error",  // LogAddressLookupFail
     "Failed to read the address for {1} from DNS; result was {2}.\n"
     "The quelm loadprobe will not be able to send load updates to this host.\n"
     "Check the hostname and that it is configured correctly in DNS.\n"},
    {22, "quelmloadprobe/host/info",  // LogHostTimedOut
     "The host object for {1} with ID {2} has time-expired and has been deleted.\n"
     "No action is necessary."},
    {23, "quelmloadprobe/host/moreinfo",  // LogHostListLen
     "{1}: There are {2} host objects in the Host List."},
    {24, "quelmloadprobe/host/error",  // LogCacheEmpty
     "Unable to send load/memory values to {1}. There are no values in the cache to average.\n"
     "Quelm loadbalancing may not work.\n"
     "If this problem persists, check and correct the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {25, "quelmloadprobe/listener/error",  // LogAcceptFail
     "Failed to accept new connection [Reason: {1}].\n"
     "An unknown host will not be able to receive load updates.\n"
     "Check for failures on your network."},
    {26, "quelmloadprobe/listener/error",  // LogRemoteAddressFail
     "Failed to get remote address for new connection.\n"
     "An unknown host will not be able to receive load updates.\n"
     "Check for failures on your network."},
    {27, "quelmloadprobe/listener/info",  // LogNewConnection
     "Received new connection from {1}."},
    {28, "quelmloadprobe/listener/fatalerror",  // LogBindFailed
     "Failed to bind to port {1}, reason {2}.\n"
     "The quelm loadprobe will not be able to function.\n"
     "Check that this port is available OR configure the quelmloadprobe to use a different port."},
    {29, "quelmloadprobe/listener/fatalerror",  // LogListenFailed
     "Failed to listen on port {1}, reason {2}.\n"
     "The quelm loadprobe will not be able to function.\n"
     "Check that this port is available OR configure the quelmloadprobe to use a different port."},
    {30, "quelmloadprobe/listener/error",  // LogBadCommand
     "Bad request (length {1}). Request is [ {2} ].\n"
     "The quelm loadprobe cannot act on this request.\n"
     "Check the source of this request to determine its validity."},
    {31, "quelmloadprobe/responder/fatalerror",  // LogResponderBindFailed
     "Failed to bind for connectionless port reason {1}.\n"
     "The quelm loadprobe will not be able to function.\n"
     "Check the availability of suitable ports."},
    {32, "quelmloadprobe/responder/moreinfo",  // LogLoadPacketSent
     "{1}\n"
     "sent to {2}"},
    {33, "quelmloadprobe/responder/info",  // LogLoadSent
     "Idle value {1} sent to {2} "},
    {34, "quelmloadprobe/responder/error",  // LogLoadPacketFail
     "Failed to send packet\n"
     "{1}\n"
     "to address {2}. Error was {3}, errno was {4}.\n"
     "The loadprobe will continue sending load packets to this and other addresses.\n"
     "Check for other evidence of network faults."},
    {35, "quelmloadprobe/command/error",  // LogCommandMissing
     "Failed to find valid command.\n"
     "The loadprobe may not work successfully.\n"
     "Correct the loadprobe configuration and restart it."},
    {36, "quelmloadprobe/command/error",  // LogSyntaxError
     "Syntax error in command parameter list\n"
     "{1}\n"
     " at character position {2} because of [{3}].\n"
     "The loadprobe may not work successfully.\n"
     "Correct the source of the command and resend it."},
    {37, "quelmloadprobe/command/info",  // LogCommandText
     "Command is \n"
     "{1}"},
    {38, "quelmloadprobe/command/info",  // LogResponseText
     "Response is \n"
     "{1}"},
    {39, "quelmloadprobe/set_attribute/error",  // LogAttribSetFail
     "Failed to register attribute setting ({1} = {2}).\n"
     "The loadprobe may not work properly.\n"
     "Restart the loadprobe to see if the problem persists."},
    {40, "quelmloadprobe/set_attribute/moreinfo",  // LogAttribSetSuccess
     "Successfully set {1} = {2}"},
    {41, "quelmloadprobe/get_attribute/error",  // LogAttribGetFail
     "Failed to get attribute {1}\n"
     ".The loadprobe may not work successfully.\n"
     "Correct the loadprobe configuration and restart it."},
    {42, "quelmloadprobe/results/moreinfo",  // LogResultsCached
     "The following results have just been cached: idle={1}, swap={2}, \n"
     "physmemfree={3}, swappedin={4}, swappedout={5}."},
    {43, "quelmloadprobe/results/info",  // LogSpeedRecalculated
     "The processor speed estimate was recalculated after a tool run ending at idle {1}: estimate {2}, reported {3}."},
    {44, "quelmloadprobe/child/error",  // LogToolBufferLimit
     "The loadtool (sar/iostat/vmstat) wrote more output than the read buffer limit of {1} bytes allows.\n"
     "The loadtool has been stopped and will be restarted; this is not logged again until a run of the loadtool ends normally.\n"
     "Check the probepath configuration in the quelmloadprobe.properties file, or raise the toolbufferlimit value."},
    {45, "quelmloadprobe/child/error",  // LogToolEndedAtOnce
     "The loadtool (sar/iostat/vmstat) ended {1} seconds after it was started, before one sample interval had passed.\n"
     "Its next start is delayed to {2} seconds after the previous one; this is not logged again until a run of the loadtool ends normally.\n"
     "Check the probepath configuration in the quelmloadprobe.properties file and that the tool runs from the command line."},
    {46, "quelmloadprobe/child/error",  // LogToolStalled
     "The loadtool (sar/iostat/vmstat) delivered no data for {1} seconds.\n"
     "The loadtool has been stopped and will be restarted; this is not logged again until a run of the loadtool ends normally.\n"
     "Check that the tool named by probepath in the quelmloadprobe.properties file prints a sample every sample interval."},
    {47, "quelmloadprobe/initialize/error",  // LogStringAttrBadValue
     "The attribute {1} has the value {2} which is invalid. The built-in default value {3} will be used instead.\n"
     "The most likely cause is incorrect configuration.\n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {48, "quelmloadprobe/initialize/error",  // LogPropsMalformed
     "Line {3} of the properties file {1} is not valid {2} text. That line, and any further line that is not valid {2}, has been ignored; the built-in defaults will be used for the attributes they held.\n"
     "The most likely cause is that the file was saved in another character set than the attribute varosa.config.quelmloadbalancing.propertiesencoding names.\n"
     "Save the file as {2}, or correct that attribute in the quelmloadprobe.properties file, and restart the quelm loadprobe."},
    {49, "quelmloadprobe/initialize/error",  // LogRunAsFail
     "The quelm loadprobe cannot run as the user {1}: {2}. It keeps running as the user that started it.\n"
     "The most likely cause is incorrect configuration.\n"
     "Correct the user and group attributes in the quelmloadprobe.properties file, or start the quelm loadprobe as root, and restart the quelm loadprobe."},
    {50, "quelmloadprobe/initialize/error",  // LogRunAsFolder
     "The user {2}, whom the quelm loadprobe runs as, cannot write in the folder {1}: {3}\n"
     "The most likely cause is incorrect installation.\n"
     "Give the folder {1} to the user {2} (or let the user write in it) and restart the quelm loadprobe."},
    {51, "quelmloadprobe/listener/info",  // LogConnectionBroken
     "A command client closed or reset its connection before the reply had been sent ({1}).\n"
     "The reply was dropped; the quelm loadprobe goes on serving other clients.\n"
     "Check the client if this happens often."},
    {52, "quelmloadprobe/listener/moreinfo",  // LogRequestTimedOut
     "A command connection did not deliver a complete request within {1} seconds and has been closed."},
    {53, "quelmloadprobe/listener/error",  // LogConnectionLimit
     "The command port has reached its limit of {1} open connections; new connections wait until some of the open ones end.\n"
     "This is not logged again until the number of open connections has fallen to half the limit.\n"
     "Check the clients of the command port, or raise maxconnections or the open-file limit of the quelm loadprobe."},
    {54, "quelmloadprobe/listener/info",  // LogClientRefused
     "A command connection from {1}, which the clientallow list does not name, has been closed without a reply."},
    {55, "quelmloadprobe/child/error",  // LogToolStartFailed
     "The loadtool (sar/iostat/vmstat) could not be started ({1}); it is tried again every {2} seconds while the quelm loadprobe goes on serving.\n"
     "This is not logged again until a run of the loadtool ends normally.\n"
     "Kill off unwanted processes, or raise the open-file limit or descriptorreserve of the quelm loadprobe."},
    {56, "quelmloadprobe/host/error",  // LogSubscriberRefused
     "The host {1} has the address {2}, which the subscriberallow list does not hold; no host object has been created for it.\n"
     "The quelm loadprobe sends load updates only to the addresses that list allows.\n"
     "Check the create command's host, or add its address to subscriberallow in the quelmloadprobe.properties file."},
    {57, "quelmloadprobe/host/error",  // LogSubscriberLimit
     "The quelm loadprobe has {1} hosts, the maxsubscribers limit; further create commands are refused.\n"
     "This is not logged again until a create finds fewer hosts than the limit.\n"
     "Kill unused subscriptions, or raise maxsubscribers in the quelmloadprobe.properties file."},
    {58, "quelmloadprobe/listener/error",  // LogReplyPortFailed
     "The {1} port could not be opened on {2}: {3}.\n"
     "The loadprobe runs on without it; load balancers and collectors that use it get no answer.\n"
     "Choose a free port or another address in the quelmloadprobe.properties file and restart the loadprobe."},
    {59, "quelmloadprobe/results/info",  // LogAgentCheckDrain
     "The agent check now answers drain: average idle {1}, free virtual memory {2} percent."},
    {60, "quelmloadprobe/results/info",  // LogAgentCheckReady
     "The agent check now answers ready again: average idle {1}, free virtual memory {2} percent."},
    {61, "quelmloadprobe/responder/error",  // LogResponderIPv6Failed
     "The connectionless port for IPv6 subscribers could not be opened: {1}.\n"
     "Load packets to IPv6 subscribers fail until the quelm loadprobe is restarted; IPv4 subscribers are served as before.\n"
     "Check that the machine has IPv6, or set ipv6 to 0 in the quelmloadprobe.properties file."},
    {62, "quelmloadprobe/initialize/error",  // LogLoadCgroupUnreadable
     "The cgroup folder {1} cannot be read as the load source ({2}). The quelm loadprobe measures the whole host's load from /proc instead.\n"
     "The most likely cause is incorrect configuration, or a probe that does not run in the cgroup it should measure.\n"
     "Correct the loadcgroup attribute in the quelmloadprobe.properties file (empty: the probe's own cgroup) and restart the quelm loadprobe."},
    {63, "quelmloadprobe/child/error",  // LogLoadCgroupLost
     "The cgroup folder {1} can no longer be read. The quelm loadprobe measures the whole host's load from /proc from now on.\n"
     "The most likely cause is that the cgroup was removed while the quelm loadprobe ran.\n"
     "Restart the quelm loadprobe inside the cgroup it should measure."},
    {64, "quelmloadprobe/results/info",  // LogAgentCheckPressureDrain
     "The agent check now answers drain: processor pressure {1} percent."},
    {65, "quelmloadprobe/initialize/error",  // LogUnsafeFile
     "The file {1} was not opened: {2}.\n"
     "The quelm loadprobe writes only regular files of its own user, never through a symbolic link.\n"
     "Remove the file, or choose a pid and log directory that only the loadprobe's user can write to."},
    {66, "quelmloadprobe/host/error",  // LogLookUpLimit
     "The address of {1} was not looked up for the client {2}: {3} look-ups were at work already, the resolvelimit or resolveperclient bound.\n"
     "The create command is answered as failed at once.\n"
     "Check the name servers, or raise resolvelimit or resolveperclient in the quelmloadprobe.properties file."},
    {67, "quelmloadprobe/log/error",  // LogMessagesLeftOut
     "{1} messages number {2} were left out of the log since {3}: more than {4} a second came.\n"
     "A client or a fault repeats one event faster than the log can usefully hold it.\n"
     "Look at the messages number {2} that were logged for its source."},
    {68, "quelmloadprobe/host/error",  // LogStateFileUnreadable
     "The state file {1} could not be read ({2}). The quelm loadprobe starts without the subscriptions it held.\n"
     "The most likely cause is a wrong owner or mode of the file or its folder.\n"
     "Let the quelm loadprobe's user read and write the file; balancers create their subscriptions again."},
    {69, "quelmloadprobe/host/error",  // LogStateFileDamaged
     "The state file {1} is damaged at line {2} ({3} lines could not be read); the subscriptions on its good lines have been restored.\n"
     "The most likely cause is a disk fault or an edit of the file.\n"
     "Check the subscriptions with a get command; balancers whose subscription is missing create it again."},
    {70, "quelmloadprobe/host/error",  // LogStateFileWriteFailed
     "The state file {1} could not be written ({2}); subscriptions made or ended from now on may be lost at the next restart.\n"
     "This is not logged again until a write succeeds.\n"
     "Free space on the file's disk, or let the quelm loadprobe's user write in its folder."},
    {71, "quelmloadprobe/host/info",  // LogStateRestored
     "{1} subscriptions were restored from the state file {2}; {3} had expired while the quelm loadprobe was stopped and {4} could not be created again."},
    {72, "quelmloadprobe/child/error",  // LogSpeedChildFailed
     "The processor speed could not be estimated in a child process ({1}); the reported figure stays as it is until the next recalculation.\n"
     "Kill off unwanted processes, or raise the process limit of the quelm loadprobe."},
    {73, "quelmloadprobe/process/error",  // LogNotifyFailed
     "A notification to the service manager through {1} failed ({2}); the service manager may take the quelm loadprobe for hung.\n"
     "This is not logged again until a notification goes through.\n"
     "Check the service unit's NotifyAccess and the quelm loadprobe's access to the socket."},
};

namespace {

bool Wanted(unsigned n) {
  OmLog* log = OmLog::Current();
  return log != nullptr && log->Gen(n);
}

OmUniString Text(const OmUniString& s) { return s; }

OmUniString Text(const OmInetAddr& a) { return a.AsString(true); }

unsigned requestCopyLimit = 0;

// A copy of what a client sent or was sent: a client decides its length, so
// a log copy keeps at most the configured bytes (the texts are one byte a
// unit) and says how long the whole was. Cut before the .csl file escapes it.
struct RequestCopy {
  const OmUniString& text;
};

OmUniString Text(RequestCopy copy) {
  const unsigned long length = copy.text.Length();
  if (requestCopyLimit == 0 || length <= requestCopyLimit) return copy.text;
  OmOSStream s;
  s << copy.text.SubString(0, requestCopyLimit) << "... (" << length << " bytes in all)";
  return s.Str();
}

template <typename T>
OmUniString Text(OmScalar<T> v) {
  OmOSStream s;
  s << v;
  return s.Str();
}

void Emit(unsigned n, std::initializer_list<OmUniString> args);

// How often each message was logged in its current second, and how many were
// left out since the first one left out.
struct MessageRate {
  uint32_t second = 0;
  uint32_t logged = 0;
  uint32_t leftOut = 0;
  OmTimeVal since;
};
constexpr unsigned kLeftOutMessage = 67;  // LogMessagesLeftOut
unsigned messageRateLimit = 0;
MessageRate messageRates[kMessageCount];

// One client can make the probe repeat a message as fast as it can connect:
// past the limit a second the copies are counted, and the count is logged
// (message 63) with the next one that is written.
bool underRate(unsigned n) {
  if (messageRateLimit == 0 || n >= kMessageCount || n == kLeftOutMessage) return true;
  MessageRate& rate = messageRates[n];
  const OmTimeVal now = OmTimeVal::now();
  if (now.seconds != rate.second) {
    rate.second = now.seconds;
    rate.logged = 0;
  }
  if (rate.logged >= messageRateLimit) {
    if (rate.leftOut++ == 0) rate.since = now;
    return false;
  }
  ++rate.logged;
  if (rate.leftOut != 0) {
    const uint32_t leftOut = std::exchange(rate.leftOut, 0);
    Emit(kLeftOutMessage, {Text(OmScalar<unsigned>(leftOut)), Text(OmScalar<unsigned>(n)),
                           rate.since.AsRFC1123(), Text(OmScalar<unsigned>(messageRateLimit))});
  }
  return true;
}

// Replaces {1}..{9} in message n's text with the arguments and logs it.
void Emit(unsigned n, std::initializer_list<OmUniString> args) {
  OmOSStream s;
  std::string literal;
  for (const char* f = kMessageCatalogue[n].format; *f != '\0'; ++f) {
    const unsigned index = static_cast<unsigned>(f[1] - '1');
    if (f[0] == '{' && index < args.size() && f[2] == '}') {
      s << literal.c_str() << args.begin()[index];
      literal.clear();
      f += 2;
    } else {
      literal += *f;
    }
  }
  s << literal.c_str();
  OmLog::Current()->CserverLog(n, s.Str());
}

// The text is built only when some log file takes the message.
template <typename... Args>
void Log(unsigned n, const Args&... args) {
  if (Wanted(n) && OmLog::Current()->Admit(n) && underRate(n)) Emit(n, {Text(args)...});
}

}  // namespace

void setRequestCopyLimit(unsigned bytes) { requestCopyLimit = bytes; }

void setMessageRateLimit(unsigned perSecond) {
  messageRateLimit = perSecond;
  for (MessageRate& rate : messageRates) rate = MessageRate();
}

void LogPropsNotFound(const OmUniString& a1) { Log(0, a1); }
void LogPathNonExistant(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3) { Log(1, a1, a2, a3); }
void LogPathNotDirectory(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3) { Log(2, a1, a2, a3); }
void LogScalarAttrNonExistant(const OmUniString& a1, OmScalar<int> a2) { Log(3, a1, a2); }
void LogStringAttrNonExistant(const OmUniString& a1, const OmUniString& a2) { Log(4, a1, a2); }
void LogScalarAttrBadValue(const OmUniString& a1, OmScalar<int> a2, OmScalar<int> a3) { Log(5, a1, a2, a3); }
void LogStringAttrBadValue(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3) { Log(47, a1, a2, a3); }
void LogStarted() { Log(6); }
void LogStopped(OmScalar<int> a1) { Log(7, a1); }
void LogExitSignal(const OmUniString& a1) { Log(8, a1); }
void LogBufferFail(OmScalar<int> a1) { Log(9, a1); }
void LogForkFail(OmScalar<int> a1) { Log(10, a1); }
void LogToolFail(OmScalar<int> a1) { Log(11, a1); }
void LogWrongChild(OmScalar<int> a1, OmScalar<int> a2) { Log(12, a1, a2); }
void LogPipeFail(OmScalar<int> a1, OmScalar<int> a2) { Log(13, a1, a2); }
void LogReadPipeLimitFail(OmScalar<int> a1) { Log(14, a1); }
void LogFilterNotRecognised(const OmUniString& a1) { Log(15, a1); }
void LogDataNotRecognised(const OmUniString& a1, const OmUniString& a2) { Log(16, a1, a2); }
void LogVMemOutOfRange(OmScalar<int> a1, OmScalar<int> a2) { Log(17, a1, a2); }
void LogPhysMemOutOfRange(OmScalar<int> a1, OmScalar<int> a2) { Log(18, a1, a2); }
void LogReOpenLogFail(const OmUniString& a1) { Log(19, a1); }
void LogAttributeLookupFail(const OmUniString& a1) { Log(20, a1); }
void LogAddressLookupFail(const OmUniString& a1, OmScalar<unsigned int> a2) { Log(21, a1, a2); }
void LogHostTimedOut(const OmUniString& a1, OmScalar<unsigned int> a2) { Log(22, a1, a2); }
void LogHostListLen(const OmUniString& a1, OmScalar<unsigned int> a2) { Log(23, a1, a2); }
void LogCacheEmpty(const OmUniString& a1) { Log(24, a1); }
void LogAcceptFail(const OmUniString& a1) { Log(25, a1); }
void LogRemoteAddressFail() { Log(26); }
void LogNewConnection(const OmUniString& a1) { Log(27, a1); }
void LogBindFailed(OmScalar<unsigned int> a1, const OmUniString& a2) { Log(28, a1, a2); }
void LogListenFailed(OmScalar<unsigned int> a1, const OmUniString& a2) { Log(29, a1, a2); }
void LogBadCommand(OmScalar<unsigned int> a1, const OmUniString& a2) { Log(30, a1, RequestCopy{a2}); }
void LogResponderBindFailed(const OmUniString& a1) { Log(31, a1); }
void LogLoadPacketSent(const OmUniString& a1, const OmInetAddr& a2) { Log(32, a1, a2); }
void LogLoadSent(OmScalar<unsigned int> a1, const OmUniString& a2) { Log(33, a1, a2); }
void LogLoadPacketFail(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3, OmScalar<unsigned int> a4) { Log(34, a1, a2, a3, a4); }
void LogCommandMissing() { Log(35); }
void LogSyntaxError(const OmUniString& a1, OmScalar<int> a2, const OmUniString& a3) { Log(36, a1, a2, a3); }
void LogCommandText(const OmUniString& a1) { Log(37, RequestCopy{a1}); }
void LogResponseText(const OmUniString& a1) { Log(38, RequestCopy{a1}); }
void LogAttribSetFail(const OmUniString& a1, const OmUniString& a2) { Log(39, a1, a2); }
void LogAttribSetSuccess(const OmUniString& a1, const OmUniString& a2) { Log(40, a1, a2); }
void LogAttribGetFail(const OmUniString& a1) { Log(41, a1); }
void LogResultsCached(OmScalar<int> a1, OmScalar<int> a2, OmScalar<int> a3, OmScalar<int> a4, OmScalar<int> a5) { Log(42, a1, a2, a3, a4, a5); }
void LogSpeedRecalculated(OmScalar<int> a1, OmScalar<int> a2, OmScalar<int> a3) { Log(43, a1, a2, a3); }
void LogToolBufferLimit(OmScalar<unsigned int> a1) { Log(44, a1); }
void LogToolEndedAtOnce(OmScalar<unsigned int> a1, OmScalar<unsigned int> a2) { Log(45, a1, a2); }
void LogToolStalled(OmScalar<unsigned int> a1) { Log(46, a1); }
void LogPropsMalformed(const OmUniString& a1, const OmUniString& a2, OmScalar<unsigned int> a3) { Log(48, a1, a2, a3); }
void LogRunAsFail(const OmUniString& a1, const OmUniString& a2) { Log(49, a1, a2); }
void LogRunAsFolder(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3) { Log(50, a1, a2, a3); }
void LogConnectionBroken(const OmUniString& a1) { Log(51, a1); }
void LogRequestTimedOut(OmScalar<unsigned int> a1) { Log(52, a1); }
void LogConnectionLimit(OmScalar<unsigned int> a1) { Log(53, a1); }
void LogClientRefused(const OmUniString& a1) { Log(54, a1); }
void LogToolStartFailed(const OmUniString& a1, OmScalar<unsigned int> a2) { Log(55, a1, a2); }
void LogSubscriberRefused(const OmUniString& a1, const OmUniString& a2) { Log(56, a1, a2); }
void LogSubscriberLimit(OmScalar<unsigned int> a1) { Log(57, a1); }
void LogReplyPortFailed(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3) { Log(58, a1, a2, a3); }
void LogAgentCheckDrain(OmScalar<unsigned int> a1, OmScalar<unsigned int> a2) { Log(59, a1, a2); }
void LogAgentCheckReady(OmScalar<unsigned int> a1, OmScalar<unsigned int> a2) { Log(60, a1, a2); }
void LogResponderIPv6Failed(const OmUniString& a1) { Log(61, a1); }
void LogLoadCgroupUnreadable(const OmUniString& a1, const OmUniString& a2) { Log(62, a1, a2); }
void LogLoadCgroupLost(const OmUniString& a1) { Log(63, a1); }
void LogAgentCheckPressureDrain(OmScalar<unsigned int> a1) { Log(64, a1); }
void LogUnsafeFile(const OmUniString& a1, const OmUniString& a2) { Log(65, a1, a2); }
void LogLookUpLimit(const OmUniString& a1, const OmUniString& a2, OmScalar<unsigned int> a3) { Log(66, a1, a2, a3); }
void LogStateFileUnreadable(const OmUniString& a1, const OmUniString& a2) { Log(68, a1, a2); }
void LogStateFileDamaged(const OmUniString& a1, OmScalar<unsigned int> a2, OmScalar<unsigned int> a3) { Log(69, a1, a2, a3); }
void LogStateFileWriteFailed(const OmUniString& a1, const OmUniString& a2) { Log(70, a1, a2); }
void LogStateRestored(OmScalar<unsigned int> a1, const OmUniString& a2, OmScalar<unsigned int> a3, OmScalar<unsigned int> a4) { Log(71, a1, a2, a3, a4); }
void LogSpeedChildFailed(const OmUniString& a1) { Log(72, a1); }
void LogNotifyFailed(const OmUniString& a1, const OmUniString& a2) { Log(73, a1, a2); }
