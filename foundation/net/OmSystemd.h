#ifndef QUELM_FOUNDATION_NET_OMSYSTEMD_H_
#define QUELM_FOUNDATION_NET_OMSYSTEMD_H_

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>

class OmSocket;

// The service manager's two protocols, spoken without its library.
//
// Socket activation: the manager opens the listening sockets itself and
// passes them from descriptor 3 on, naming their count in LISTEN_FDS and
// the process meant in LISTEN_PID; a restart then refuses no connection,
// as they wait in the manager's socket meanwhile.
//
// Notification: one datagram of "KEY=value" lines to the local socket
// named by NOTIFY_SOCKET (a path, or '@' for the abstract namespace).
class OmSystemd {
 public:
  static constexpr int kFirstPassedFd = 3;

  // The number of descriptors passed to the process pid: LISTEN_FDS when
  // LISTEN_PID names pid, else 0. Null or malformed texts give 0.
  static int PassedCount(const char* listenPid, const char* listenFds, int pid);
  // Takes what the environment passes this process, marks the descriptors
  // close-on-exec (the measuring tool must not hold the ports) and removes
  // the variables, so that no child takes them for its own. Until it is
  // called, TakeListener finds nothing.
  static void AcceptPassedSockets();
  // The same for count descriptors from first on.
  static void AcceptPassed(int first, int count);
  // Hands the passed listening TCP socket whose local port is port (any
  // address) to socket, once; false when none was passed: bind as usual.
  static bool TakeListener(OmSocket& socket, unsigned port);
  // Forgets what was passed (tests).
  static void Reset();

  // NOTIFY_SOCKET's text as an address; false when it is empty or too long.
  static bool NotifyAddress(const char* text, sockaddr_un& address, socklen_t& length);
  // Sends state as one datagram. True when it went, or when no manager
  // listens (NOTIFY_SOCKET unset); false with the reason in reason.
  static bool Notify(const std::string& state, std::string& reason);
  // The watchdog interval asked of the process pid in microseconds
  // (WATCHDOG_USEC, when WATCHDOG_PID is unset or names pid); 0: none.
  static uint64_t WatchdogMicroseconds(const char* usec, const char* watchdogPid, int pid);
};

#endif  // QUELM_FOUNDATION_NET_OMSYSTEMD_H_
