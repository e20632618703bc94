#ifndef QUELM_FOUNDATION_NET_OMRESOLVER_H_
#define QUELM_FOUNDATION_NET_OMRESOLVER_H_

#include <netinet/in.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

#include "foundation/event/OmCallback.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/string/OmTimeVal.h"

class OmEventLoop;

// Finds the IPv4 address of a host name, or with IPv6 allowed its IPv4 or
// IPv6 address: an IPv4 one when the name has both (A before AAAA), so that
// a dual-stack host is reached as it was before. Numeric addresses are read
// at once. Without a time limit a name is looked up in place with
// gethostbyname, which blocks for as long as the name service takes. With a
// limit the C library's asynchronous getaddrinfo looks it up on its own
// threads; their completion writes to a pipe the event loop polls, and the
// answer is dispatched from the loop. A look-up still running at its limit is
// abandoned and answered as failed. Found addresses may be kept for a while.
class OmResolver {
 public:
  struct Answer {
    bool found = false;
    OmInetAddr address;  // port 0
    int failure = 0;  // as h_errno: HOST_NOT_FOUND, TRY_AGAIN, NO_RECOVERY, NO_DATA
    // Not looked up: this many look-ups were at work already (for the client
    // or in all); failure is TRY_AGAIN.
    size_t limited = 0;
  };
  using Callback = OmCallback<const Answer&>;
  struct Request;

  static constexpr size_t kCacheLimit = 1024;  // names kept at most

  // timeoutSeconds 0: look names up in place. cacheSeconds 0: keep nothing.
  OmResolver(OmEventLoop& loop, unsigned timeoutSeconds, unsigned cacheSeconds,
             size_t cacheLimit = kCacheLimit);
  ~OmResolver();
  // Off at first: IPv4 alone, looked up as gethostbyname does.
  void AllowIPv6(bool on) { ipv6_ = on; }
  OmResolver(const OmResolver&) = delete;
  OmResolver& operator=(const OmResolver&) = delete;

  // True with the answer filled in when no waiting is needed. Otherwise a
  // look-up is under way: done is dispatched once from the loop, unless
  // Cancel comes first, and *request names the look-up until then.
  // client names whom the look-up is for; their look-ups are bounded together.
  bool Resolve(const std::string& name, Answer& answer, Callback* done, Request** request,
               const std::string& client = std::string());
  // Bounds the background look-ups at work at once, in all and for one
  // client; 0 leaves a bound off. Given-up look-ups count until the C
  // library's thread is done with them: its pool of threads is what a name
  // server that never answers would otherwise use up.
  void SetLimits(size_t total, size_t perClient) {
    totalLimit_ = total;
    clientLimit_ = perClient;
  }
  // Background look-ups holding a thread of the C library: all, or one client's.
  size_t Busy() const { return running_.size() + abandoned_.size(); }
  size_t Busy(const std::string& client) const;
  // done is not dispatched; the look-up itself may run on unseen.
  void Cancel(Request* request);
  size_t Running() const { return running_.size(); }

  // The numeric and in-place look-ups, without time limit or cache. With
  // ipv6, an address with a colon is read as IPv6 and names are looked up
  // with getaddrinfo for both families.
  static bool ReadNumeric(const std::string& name, Answer& answer, bool ipv6 = false);
  static Answer LookUpNow(const std::string& name, bool ipv6 = false);

 private:
  struct Kept {
    OmInetAddr address;
    OmTimeVal until;
  };
  using Owned = std::list<std::unique_ptr<Request>>;

  void wakeCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  void timeoutCB(OmEventCallback* cb, OmEvent::cbdispatch reason, Request* request);
  // Takes the request out of the running list.
  std::unique_ptr<Request> take(Request* request);
  // Stops the C library's work on it; keeps it until that work is over.
  void abandon(std::unique_ptr<Request> request);
  Answer finish(Request& request);
  bool recall(const std::string& name, Answer& answer);
  void keep(const std::string& name, const OmInetAddr& address);

  OmEventLoop& loop_;
  unsigned timeoutSeconds_;
  unsigned cacheSeconds_;
  size_t cacheLimit_;
  Owned running_;
  Owned abandoned_;
  std::unordered_map<std::string, Kept> cache_;
  OmSimpleCallback<OmEvent::cbdispatch, OmResolver> wakeCallback_;
  bool wakeRegistered_ = false;
  bool ipv6_ = false;
  size_t totalLimit_ = 0;
  size_t clientLimit_ = 0;
};

#endif  // QUELM_FOUNDATION_NET_OMRESOLVER_H_
