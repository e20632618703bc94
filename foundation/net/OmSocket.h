#ifndef QUELM_FOUNDATION_NET_OMSOCKET_H_
#define QUELM_FOUNDATION_NET_OMSOCKET_H_

#include <sys/socket.h>

#include "foundation/net/OmInetAddr.h"
#include "foundation/net/OmSocketAddress.h"
#include "foundation/string/OmFile.h"
#include "foundation/string/OmStatus.h"
#include "foundation/string/OmUniString.h"

// One socket descriptor: TCP or UDP over IPv4 or IPv6, or a local socket. Every
// failing call returns failure and leaves errno and a description of the
// call in LastError(); nothing throws.
class OmSocket : public OmFile {
 public:
  enum connectionType { Datagram = 0, Stream = 1 };
  // Type-of-service classes, set only when VRX_SET_IP_TOS is in the environment.
  enum serviceType { MinimumCost = 0, LowDelay = 1, Reliability = 2, Throughput = 3 };
  // ConnectionComplete results.
  enum ConnectState { ConnectFailed = 0, Connected = 1, ConnectPending = 2 };

  OmSocket() : OmFile(-1, kInetSocket) {}
  explicit OmSocket(int fd, Kind kind = kInetSocket) : OmFile(fd, kind) {}

  // socket(family, type, 0); closes a descriptor this socket already had.
  bool makesock(int type, int family);
  // Creates the socket and binds it, retrying an address in use (see .cpp).
  bool Bind(const OmSocketAddress& addr, connectionType type = Datagram, bool reuse = false,
            unsigned retries = 0, bool verbose = false);
  bool Listen(unsigned backlog);
  // A listening stream socket on address (SO_REUSEADDR, no retries),
  // non-blocking and close-on-exec. Any IPv6 address binds with IPV6_V6ONLY
  // off, so "::" is one socket for every address of both families. On
  // failure LastError().Call() says which step failed: "socket",
  // "setsockopt", "bind" or "listen".
  bool ListenOn(const OmInetAddr& address, unsigned backlog);
  // Takes the next connection waiting on the listening descriptor fd.
  OmStatus::Value AcceptFrom(int fd);
  // The same from a listening socket of this library, whose kind the new
  // connection shares; flags as for accept4 (SOCK_NONBLOCK, SOCK_CLOEXEC)
  // set its state in the same call.
  OmStatus::Value AcceptFrom(const OmSocket& listening, int flags);
  // Creates a stream socket first when there is none. A non-blocking connect
  // that is under way fails with EINPROGRESS; ConnectionComplete follows it up.
  bool Connect(const OmSocketAddress& addr);
  // Without waiting: Connected, ConnectPending, or ConnectFailed with the
  // system's text in reason.
  ConnectState ConnectionComplete(OmUniString& reason);

  // One datagram each; transfer results as OmFile::Read/Write.
  int ReadMessage(void* buf, long len, long& done, OmInetAddr& from);
  int WriteMessage(const void* buf, long len, long& done, const OmInetAddr& to);
  // Datagrams in one system call. Returns how many went out whole before
  // the kernel stopped (ioComplete in result); 0 when the first did not go,
  // with its outcome as WriteMessage would give it in result.
  unsigned WriteMessages(mmsghdr* msgs, unsigned count, int& result);

  // An IPv4-mapped address (an IPv4 client of a dual-stack socket) is
  // given as the IPv4 address.
  bool RemoteAddress(OmInetAddr& addr);
  bool LocalAddress(OmInetAddr& addr);

  // Delay true keeps Nagle's algorithm (TCP_NODELAY off).
  bool SetDelay(bool delay);
  bool SetKeepAlive(bool on);
  bool SetLinger(bool on, int seconds);
  bool SetOOBInLine(bool on);
  bool SetBroadcast(bool on);
  bool SetTransmitBufferSize(unsigned size);
  bool SetReceiveBufferSize(unsigned size);
  int GetTransmitBufferSize();  // -1 on failure
  int GetReceiveBufferSize();   // -1 on failure
  bool SetTypeOfService(serviceType type);

 private:
  bool SetIntOption(int level, const char* levelName, int option, const char* optionName,
                    int value);
  int GetIntOption(int level, const char* levelName, int option, const char* optionName);
  void Record(int err, const char* call, const OmUniString& args) { error_.Set(err, call, args); }
  bool NameOf(int (*call)(int, sockaddr*, socklen_t*), const char* callName, OmInetAddr& addr);
};

#endif  // QUELM_FOUNDATION_NET_OMSOCKET_H_
