#ifndef QUELM_FOUNDATION_NET_OMSOCKETADDRESS_H_
#define QUELM_FOUNDATION_NET_OMSOCKETADDRESS_H_

#include <sys/socket.h>

#include <string>

#include "foundation/net/OmInetAddr.h"
#include "foundation/string/OmUniString.h"

// The address of Bind and Connect: AF_INET or AF_INET6 with an OmInetAddr
// (whose own family it is), or AF_UNIX with a path.
class OmSocketAddress {
 public:
  OmSocketAddress() = default;  // AF_INET, any:0
  OmSocketAddress(const OmInetAddr& inet)  // NOLINT: implicit
      : family_(inet.Family()), inet_(inet) {}
  explicit OmSocketAddress(const OmUniString& path) : family_(AF_UNIX), path_(path) {}

  int Family() const { return family_; }
  const OmInetAddr& Inet() const { return inet_; }
  const OmUniString& Path() const { return path_; }
  // 16 for AF_INET, 28 for AF_INET6; the path's length + 3 for AF_UNIX.
  unsigned Length() const;
  // Fills storage with the system form; false when a path is too long.
  bool ToSockaddr(sockaddr_storage& storage) const;
  // The address as call descriptions show it: "a.b.c.d:port", "[addr]:port"
  // or the path.
  OmUniString Describe() const;

 private:
  int family_ = AF_INET;
  OmInetAddr inet_;
  OmUniString path_;
};

#endif  // QUELM_FOUNDATION_NET_OMSOCKETADDRESS_H_
