#include "command/Listener.h"

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "command/RequestCircuit.h"

Listener::Listener(OmEventLoop& loop) : server(loop, *this) {}

bool Listener::startListener(int port) {
  if (!startListeningSocket(port)) return false;
  AddCallback();
  return true;
}

bool Listener::startListeningSocket(int port) {
  // Every IPv4 address unless listenaddress names one (checked when read).
  OmInetAddr address;
  address.FromListenText(mySettings != nullptr ? mySettings->listenAddress : OmUniString(),
                         static_cast<unsigned>(port));
  Options o = opts;
  o.deletionDelay = DELETION_DELAY_SECONDS;
  return server.listen(address, o);
}

RequestCircuit* Listener::startNewConnection(int fd) { return new RequestCircuit(server, fd); }

ServerConnection* Listener::connect(int fd) { return startNewConnection(fd); }

void Listener::listenFailed(const OmInetAddr& address, bool bound, const OmUniString& reason) {
  bound ? LogListenFailed(address.GetPort(), reason) : LogBindFailed(address.GetPort(), reason);
}

void Listener::peerUnknown() { LogRemoteAddressFail(); }

void Listener::admitted(const OmInetAddr& peer) { LogNewConnection(peer.AsPeerString()); }

void Listener::capReached(unsigned cap) { LogConnectionLimit(cap); }
