#include "agent/Messages.h"

#include "foundation/log/OmLog.h"

namespace {

bool Wanted(unsigned n) {
  OmLog* log = OmLog::Current();
  return log != nullptr && log->Gen(n);
}

void Emit(unsigned n, const OmOSStream& s) {
  OmLog::Current()->CserverLog(n, s.Str());
}

}  // namespace

void LogPropsNotFound(const OmUniString& a1) {
  if (!Wanted(0)) return;
  OmOSStream s;
  s << "The properties file " << a1 << " was not found. The quelm loadprobe has been initialized\nusing built-in defaults.\nThe most likely cause is incorrect configuration or installation.\nCreate the " << a1 << " file or reinstall the Varosakit.";
  Emit(0, s);
}

void LogPathNonExistant(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3) {
  if (!Wanted(1)) return;
  OmOSStream s;
  s << "The path or object " << a1 << " does not exist. Using the built-in default " << a2 << " for the\nattribute " << a3 << ". The quelm loadprobe may not function correctly.\nThe most likely cause is incorrect configuration. \nCorrect the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(1, s);
}

void LogPathNotDirectory(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3) {
  if (!Wanted(2)) return;
  OmOSStream s;
  s << "The path " << a1 << " does not exist or is not a directory. Using the built-in default " << a2 << " for the attribute " << a3 << ". The quelm loadprobe may not function correctly.\nThe most likely cause is incorrect configuration. \nCorrect the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(2, s);
}

void LogScalarAttrNonExistant(const OmUniString& a1, OmScalar<int> a2) {
  if (!Wanted(3)) return;
  OmOSStream s;
  s << "The attribute " << a1 << " does not exist in the quelmloadprobe.properties file. The built-in default value " << a2 << " will be used.\nThe most likely cause is incorrect configuration.\nCorrect the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(3, s);
}

void LogStringAttrNonExistant(const OmUniString& a1, const OmUniString& a2) {
  if (!Wanted(4)) return;
  OmOSStream s;
  s << "The attribute " << a1 << " does not exist in the quelmloadprobe.properties file. The built-in default value " << a2 << " will be used.\nThe most likely cause is incorrect configuration.\nCorrect the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(4, s);
}

void LogScalarAttrBadValue(const OmUniString& a1, OmScalar<int> a2, OmScalar<int> a3) {
  if (!Wanted(5)) return;
  OmOSStream s;
  s << "The attribute " << a1 << " has the value " << a2 << " which is invalid. The built-in default value " << a3 << " will be used instead.\nThe most likely cause is incorrect configuration.\nCorrect the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(5, s);
}

void LogStarted() {
  if (!Wanted(6)) return;
  OmOSStream s;
  s << "Quelm loadprobe started.";
  Emit(6, s);
}

void LogStopped(OmScalar<int> a1) {
  if (!Wanted(7)) return;
  OmOSStream s;
  s << "Quelm loadprobe stopped - exitcode " << a1 << ".";
  Emit(7, s);
}

void LogExitSignal(const OmUniString& a1) {
  if (!Wanted(8)) return;
  OmOSStream s;
  s << "The loadprobe was stopped by signal " << a1 << ".";
  Emit(8, s);
}

void LogBufferFail(OmScalar<int> a1) {
  if (!Wanted(9)) return;
  OmOSStream s;
  s << "Failed to malloc/realloc " << a1 << " bytes for loadtool pipe buffer.\nQuelm loadprobe will not work.\nFree memory by killing unwanted processes.";
  Emit(9, s);
}

void LogForkFail(OmScalar<int> a1) {
  if (!Wanted(10)) return;
  OmOSStream s;
  s << "Failed to fork a child process after " << a1 << " retries.\nThe quelm loadprobe will not work.\nKill off unwanted processes and restart the quelm loadprobe.";
  Emit(10, s);
}

void LogToolFail(OmScalar<int> a1) {
  if (!Wanted(11)) return;
  OmOSStream s;
  s << "The tool (sar/iostat/vmstat) being used to measure load did not return any data on " << a1 << " successive iterations.\nThe most likely cause is incorrect configuration of the tool or its arguments.\nCorrect the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(11, s);
}

void LogWrongChild(OmScalar<int> a1, OmScalar<int> a2) {
  if (!Wanted(12)) return;
  OmOSStream s;
  s << "There has been a signal for child process with pid " << a1 << " which is not the current child process(" << a2 << ") of the quelm loadtool.\nNo action is necessary.";
  Emit(12, s);
}

void LogPipeFail(OmScalar<int> a1, OmScalar<int> a2) {
  if (!Wanted(13)) return;
  OmOSStream s;
  s << "Failure reading " << a1 << " bytes from loadtool (sar/iostat/vmstat); errno is " << a2 << ".\nQuelm loadprobe cannot return data.\nCheck the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(13, s);
}

void LogReadPipeLimitFail(OmScalar<int> a1) {
  if (!Wanted(14)) return;
  OmOSStream s;
  s << "The pipe being used to read data from the loadtool (sar/iostat/vmstat) did not return any data on " << a1 << " successive reads.\nNo action is necessary.";
  Emit(14, s);
}

void LogFilterNotRecognised(const OmUniString& a1) {
  if (!Wanted(15)) return;
  OmOSStream s;
  s << "The filter named " << a1 << " was not recognised. This filter may not be implemented on this platform. \nQuelm loadprobe cannot return data.\nCheck the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(15, s);
}

void LogDataNotRecognised(const OmUniString& a1, const OmUniString& a2) {
  if (!Wanted(16)) return;
  OmOSStream s;
  s << "The data returned by " << a1 << " has not been recognised by the data filter. \nThe data was \n" << a2 << "\nThe quelm loadprobe has not cached any load values as a result in this cycle.\nNo action is necessary unless the problem occurs continuously, in which case check the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(16, s);
}

void LogVMemOutOfRange(OmScalar<int> a1, OmScalar<int> a2) {
  if (!Wanted(17)) return;
  OmOSStream s;
  s << "The used/free virtual memory measured (" << a1 << " Kb) exceeds the amount configured in quelmloadprobe.properties (" << a2 << " Kb).\nResulting virtual memory usage measurements will be inaccurate.\nCorrect the maxvirtualmemory value in quelmloadprobe.properties and restart the quelm loadprobe.";
  Emit(17, s);
}

void LogPhysMemOutOfRange(OmScalar<int> a1, OmScalar<int> a2) {
  if (!Wanted(18)) return;
  OmOSStream s;
  s << "The used/free real memory measured (" << a1 << " Kb) exceeds the amount configured in quelmloadprobe.properties (" << a2 << " Kb).\nResulting real memory usage measurements will be inaccurate.\nCorrect the maxrealmemory value in quelmloadprobe.properties and restart the quelm loadprobe.";
  Emit(18, s);
}

void LogReOpenLogFail(const OmUniString& a1) {
  if (!Wanted(19)) return;
  OmOSStream s;
  s << "Failed to reopen log files. No logs will be recorded.\n Check the log directory " << a1 << " exists.\nTo ensure correct log information, restart the Quelm loadprobe.";
  Emit(19, s);
}

void LogAttributeLookupFail(const OmUniString& a1) {
  if (!Wanted(20)) return;
  OmOSStream s;
  s << "Failed to any attributes in " << a1 << ".\nThe quelm loadprobe may not return data.\nCheck the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(20, s);
}

void LogAddressLookupFail(const OmUniString& a1, OmScalar<unsigned int> a2) {
  if (!Wanted(21)) return;
  OmOSStream s;
  s << "Failed to read the address for " << a1 << " from DNS; result was " << a2 << ".\nThe quelm loadprobe will not be able to send load updates to this host.\nCheck the hostname and that it is configured correctly in DNS.\n";
  Emit(21, s);
}

void LogHostTimedOut(const OmUniString& a1, OmScalar<unsigned int> a2) {
  if (!Wanted(22)) return;
  OmOSStream s;
  s << "The host object for " << a1 << " with ID " << a2 << " has time-expired and has been deleted.\nNo action is necessary.";
  Emit(22, s);
}

void LogHostListLen(const OmUniString& a1, OmScalar<unsigned int> a2) {
  if (!Wanted(23)) return;
  OmOSStream s;
  s << a1 << ": There are " << a2 << " host objects in the Host List.";
  Emit(23, s);
}

void LogCacheEmpty(const OmUniString& a1) {
  if (!Wanted(24)) return;
  OmOSStream s;
  s << "Unable to send load/memory values to " << a1 << ". There are no values in the cache to average.\nQuelm loadbalancing may not work.\nIf this problem persists, check and correct the configuration in the quelmloadprobe.properties file and restart the quelm loadprobe.";
  Emit(24, s);
}

void LogAcceptFail(const OmUniString& a1) {
  if (!Wanted(25)) return;
  OmOSStream s;
  s << "Failed to accept new connection [Reason: " << a1 << "].\nAn unknown host will not be able to receive load updates.\nCheck for failures on your network.";
  Emit(25, s);
}

void LogRemoteAddressFail() {
  if (!Wanted(26)) return;
  OmOSStream s;
  s << "Failed to get remote address for new connection.\nAn unknown host will not be able to receive load updates.\nCheck for failures on your network.";
  Emit(26, s);
}

void LogNewConnection(const OmUniString& a1) {
  if (!Wanted(27)) return;
  OmOSStream s;
  s << "Received new connection from " << a1 << ".";
  Emit(27, s);
}

void LogBindFailed(OmScalar<unsigned int> a1, const OmUniString& a2) {
  if (!Wanted(28)) return;
  OmOSStream s;
  s << "Failed to bind to port " << a1 << ", reason " << a2 << ".\nThe quelm loadprobe will not be able to function.\nCheck that this port is available OR configure the quelmloadprobe to use a different port.";
  Emit(28, s);
}

void LogListenFailed(OmScalar<unsigned int> a1, const OmUniString& a2) {
  if (!Wanted(29)) return;
  OmOSStream s;
  s << "Failed to listen on port " << a1 << ", reason " << a2 << ".\nThe quelm loadprobe will not be able to function.\nCheck that this port is available OR configure the quelmloadprobe to use a different port.";
  Emit(29, s);
}

void LogBadCommand(OmScalar<unsigned int> a1, const OmUniString& a2) {
  if (!Wanted(30)) return;
  OmOSStream s;
  s << "Bad request (length " << a1 << "). Request is [ " << a2 << " ].\nThe quelm loadprobe cannot act on this request.\nCheck the source of this request to determine its validity.";
  Emit(30, s);
}

void LogResponderBindFailed(const OmUniString& a1) {
  if (!Wanted(31)) return;
  OmOSStream s;
  s << "Failed to bind for connectionless port reason " << a1 << ".\nThe quelm loadprobe will not be able to function.\nCheck the availability of suitable ports.";
  Emit(31, s);
}

void LogLoadPacketSent(const OmUniString& a1, const OmUniString& a2) {
  if (!Wanted(32)) return;
  OmOSStream s;
  s << a1 << "\nsent to " << a2;
  Emit(32, s);
}

void LogLoadSent(OmScalar<unsigned int> a1, const OmUniString& a2) {
  if (!Wanted(33)) return;
  OmOSStream s;
  s << "Idle value " << a1 << " sent to " << a2 << " ";
  Emit(33, s);
}

void LogLoadPacketFail(const OmUniString& a1, const OmUniString& a2, const OmUniString& a3, OmScalar<unsigned int> a4) {
  if (!Wanted(34)) return;
  OmOSStream s;
  s << "Failed to send packet\n" << a1 << "\nto address " << a2 << ". Error was " << a3 << ", errno was " << a4 << ".\nThe loadprobe will continue sending load packets to this and other addresses.\nCheck for other evidence of network faults.";
  Emit(34, s);
}

void LogCommandMissing() {
  if (!Wanted(35)) return;
  OmOSStream s;
  s << "Failed to find valid command.\nThe loadprobe may not work successfully.\nCorrect the loadprobe configuration and restart it.";
  Emit(35, s);
}

void LogSyntaxError(const OmUniString& a1, OmScalar<int> a2, const OmUniString& a3) {
  if (!Wanted(36)) return;
  OmOSStream s;
  s << "Syntax error in command parameter list\n" << a1 << "\n at character position " << a2 << " because of [" << a3 << "].\nThe loadprobe may not work successfully.\nCorrect the source of the command and resend it.";
  Emit(36, s);
}

void LogCommandText(const OmUniString& a1) {
  if (!Wanted(37)) return;
  OmOSStream s;
  s << "Command is \n" << a1;
  Emit(37, s);
}

void LogResponseText(const OmUniString& a1) {
  if (!Wanted(38)) return;
  OmOSStream s;
  s << "Response is \n" << a1;
  Emit(38, s);
}

void LogAttribSetFail(const OmUniString& a1, const OmUniString& a2) {
  if (!Wanted(39)) return;
  OmOSStream s;
  s << "Failed to register attribute setting (" << a1 << " = " << a2 << ").\nThe loadprobe may not work properly.\nRestart the loadprobe to see if the problem persists.";
  Emit(39, s);
}

void LogAttribSetSuccess(const OmUniString& a1, const OmUniString& a2) {
  if (!Wanted(40)) return;
  OmOSStream s;
  s << "Successfully set " << a1 << " = " << a2;
  Emit(40, s);
}

void LogAttribGetFail(const OmUniString& a1) {
  if (!Wanted(41)) return;
  OmOSStream s;
  s << "Failed to get attribute " << a1 << "\n.The loadprobe may not work successfully.\nCorrect the loadprobe configuration and restart it.";
  Emit(41, s);
}

void LogResultsCached(OmScalar<int> a1, OmScalar<int> a2, OmScalar<int> a3, OmScalar<int> a4, OmScalar<int> a5) {
  if (!Wanted(42)) return;
  OmOSStream s;
  s << "The following results have just been cached: idle=" << a1 << ", swap=" << a2 << ", \nphysmemfree=" << a3 << ", swappedin=" << a4 << ", swappedout=" << a5 << ".";
  Emit(42, s);
}

void LogSpeedRecalculated(OmScalar<int> a1, OmScalar<int> a2, OmScalar<int> a3) {
  if (!Wanted(43)) return;
  OmOSStream s;
  s << "The processor speed estimate was recalculated after a tool run ending at idle " << a1 << ": estimate " << a2 << ", reported " << a3 << ".";
  Emit(43, s);
}
