#include "foundation/net/OmSocketAddress.h"

#include <sys/un.h>

#include <cstring>

unsigned OmSocketAddress::Length() const {
  if (family_ == AF_UNIX) return static_cast<unsigned>(path_.AsUtf8().size() + 3);
  return family_ == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

bool OmSocketAddress::ToSockaddr(sockaddr_storage& storage) const {
  std::memset(&storage, 0, sizeof storage);
  if (family_ == AF_UNIX) {
    const std::string path = path_.AsUtf8();
    sockaddr_un* un = reinterpret_cast<sockaddr_un*>(&storage);
    if (path.size() >= sizeof un->sun_path) return false;
    un->sun_family = AF_UNIX;
    std::memcpy(un->sun_path, path.data(), path.size());
    return true;
  }
  OmSockaddrInet inet;
  std::memcpy(&storage, &inet, inet_.ToSockaddr(inet));
  return true;
}

OmUniString OmSocketAddress::Describe() const {
  return family_ == AF_UNIX ? path_ : inet_.AsString(true);
}
