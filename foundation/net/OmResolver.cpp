#include "foundation/net/OmResolver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "foundation/event/OmEventLoop.h"

struct OmResolver::Request {
  Request(OmResolver* resolver, const std::string& hostName, Callback* whenDone)
      : name(hostName), done(whenDone), timeoutCallback(resolver, &OmResolver::timeoutCB, this) {}
  // The C library reads name, hints and block until its work on them is over.
  std::string name;
  std::string client;
  addrinfo hints{};
  gaicb block{};
  sigevent event{};
  Callback* done;
  OmTimeVal deadline;
  OmCallbackWithData<OmEvent::cbdispatch, OmResolver, Request*> timeoutCallback;
};

namespace {

// One pipe for the process, never closed: a notification thread of the C
// library may still write to it after the look-up it reports was given up.
struct WakePipe {
  WakePipe() {
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return;
    readFd = fds[0];
    writeFd = fds[1];
  }
  int readFd = -1;
  int writeFd = -1;
};

WakePipe& wakePipe() {
  static WakePipe* pipe = new WakePipe;
  return *pipe;
}

// Runs on a thread of the C library's: one byte tells the loop to look.
void notifyLoop(sigval value) {
  const char byte = 1;
  const ssize_t n = write(value.sival_int, &byte, 1);
  (void)n;  // a full pipe has a wake-up waiting already
}

// The first IPv4 address of the list, else its first IPv6 one.
bool pickAddress(const addrinfo* list, OmInetAddr& address) {
  const addrinfo* six = nullptr;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET) return address.FromSockaddr(entry->ai_addr, entry->ai_addrlen);
    if (entry->ai_family == AF_INET6 && six == nullptr) six = entry;
  }
  return six != nullptr && address.FromSockaddr(six->ai_addr, six->ai_addrlen);
}

int asHostError(int eai) {
  switch (eai) {
    case EAI_NONAME:
      return HOST_NOT_FOUND;
    case EAI_AGAIN:
    case EAI_CANCELED:
      return TRY_AGAIN;
    case EAI_NODATA:
    case EAI_ADDRFAMILY:
      return NO_DATA;
    default:
      return NO_RECOVERY;
  }
}

}  // namespace

OmResolver::OmResolver(OmEventLoop& loop, unsigned timeoutSeconds, unsigned cacheSeconds,
                       size_t cacheLimit)
    : loop_(loop),
      timeoutSeconds_(timeoutSeconds),
      cacheSeconds_(cacheSeconds),
      cacheLimit_(cacheLimit),
      wakeCallback_(this, &OmResolver::wakeCB) {}

OmResolver::~OmResolver() {
  if (wakeRegistered_) loop_.RemoveFileEvent(wakePipe().readFd, true, false, &wakeCallback_);
  while (!running_.empty()) Cancel(running_.front().get());
  // The C library's threads still use these; they end with the process.
  for (auto& request : abandoned_) (void)request.release();
}

bool OmResolver::ReadNumeric(const std::string& name, Answer& answer, bool ipv6) {
  if (ipv6 && name.find(':') != std::string::npos) {
    answer = Answer();
    in6_addr six;
    answer.found = inet_pton(AF_INET6, name.c_str(), &six) == 1;
    if (answer.found) answer.address = OmInetAddr(six);
    if (!answer.found) answer.failure = HOST_NOT_FOUND;
    return true;
  }
  // Digits and dots, not ending in a dot: a number the name service would
  // not look up either, whether or not it is a good one.
  if (name.empty() || name.back() == '.' ||
      name.find_first_not_of("0123456789.") != std::string::npos) {
    return false;
  }
  answer = Answer();
  in_addr four;
  answer.found = inet_aton(name.c_str(), &four) != 0;
  if (answer.found) answer.address = OmInetAddr(four);
  if (!answer.found) answer.failure = HOST_NOT_FOUND;
  return true;
}

OmResolver::Answer OmResolver::LookUpNow(const std::string& name, bool ipv6) {
  Answer answer;
  if (ipv6) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;  // one entry per address
    addrinfo* list = nullptr;
    const int result = getaddrinfo(name.c_str(), nullptr, &hints, &list);
    answer.found = result == 0 && pickAddress(list, answer.address);
    if (!answer.found) answer.failure = result == 0 ? NO_DATA : asHostError(result);
    if (list != nullptr) freeaddrinfo(list);
    return answer;
  }
  const hostent* entry = gethostbyname(name.c_str());
  if (entry == nullptr || entry->h_addrtype != AF_INET ||
      entry->h_length != static_cast<int>(sizeof(in_addr)) || entry->h_addr_list[0] == nullptr) {
    answer.failure = entry == nullptr ? h_errno : NO_DATA;
    return answer;
  }
  in_addr four;
  std::memcpy(&four, entry->h_addr_list[0], sizeof four);
  answer.address = OmInetAddr(four);
  answer.found = true;
  return answer;
}

size_t OmResolver::Busy(const std::string& client) const {
  const auto isClients = [&client](const std::unique_ptr<Request>& r) { return r->client == client; };
  return static_cast<size_t>(std::count_if(running_.begin(), running_.end(), isClients) +
                             std::count_if(abandoned_.begin(), abandoned_.end(), isClients));
}

bool OmResolver::Resolve(const std::string& name, Answer& answer, Callback* done,
                         Request** request, const std::string& client) {
  if (ReadNumeric(name, answer, ipv6_) || recall(name, answer)) return true;
  if (timeoutSeconds_ == 0 || done == nullptr || wakePipe().readFd < 0) {
    answer = LookUpNow(name, ipv6_);
    if (answer.found) keep(name, answer.address);
    return true;
  }
  // Past a bound the look-up is refused at once rather than queued behind
  // threads that a silent name server holds.
  const size_t total = Busy();
  const size_t mine = clientLimit_ != 0 ? Busy(client) : 0;
  if ((totalLimit_ != 0 && total >= totalLimit_) || (clientLimit_ != 0 && mine >= clientLimit_)) {
    answer = Answer();
    answer.failure = TRY_AGAIN;
    answer.limited = totalLimit_ != 0 && total >= totalLimit_ ? total : mine;
    return true;
  }

  auto r = std::make_unique<Request>(this, name, done);
  r->client = client;
  r->hints.ai_family = ipv6_ ? AF_UNSPEC : AF_INET;
  r->hints.ai_socktype = SOCK_DGRAM;  // one entry per address
  r->block.ar_name = r->name.c_str();
  r->block.ar_request = &r->hints;
  r->event.sigev_notify = SIGEV_THREAD;
  r->event.sigev_notify_function = notifyLoop;
  r->event.sigev_value.sival_int = wakePipe().writeFd;
  gaicb* list[1] = {&r->block};
  const int started = getaddrinfo_a(GAI_NOWAIT, list, 1, &r->event);
  if (started != 0) {
    answer = Answer();
    answer.failure = asHostError(started);
    return true;
  }
  if (!wakeRegistered_) {
    wakeRegistered_ = loop_.AddFileEvent(wakePipe().readFd, true, false, &wakeCallback_);
  }
  r->deadline = OmTimeVal::now().PlusSeconds(timeoutSeconds_);
  loop_.AddTimeoutEvent(r->deadline, &r->timeoutCallback);
  *request = r.get();
  running_.push_back(std::move(r));
  return false;
}

void OmResolver::Cancel(Request* request) {
  std::unique_ptr<Request> r = take(request);
  if (r == nullptr) return;
  loop_.RemoveTimeoutEvent(r->deadline, &r->timeoutCallback);
  abandon(std::move(r));
}

std::unique_ptr<OmResolver::Request> OmResolver::take(Request* request) {
  const auto it = std::find_if(running_.begin(), running_.end(),
                               [request](const auto& r) { return r.get() == request; });
  if (it == running_.end()) return nullptr;
  std::unique_ptr<Request> r = std::move(*it);
  running_.erase(it);
  return r;
}

void OmResolver::abandon(std::unique_ptr<Request> request) {
  const int cancelled = gai_cancel(&request->block);
  if (cancelled == EAI_NOTCANCELED) {
    abandoned_.push_back(std::move(request));  // freed once its thread is done
    return;
  }
  if (request->block.ar_result != nullptr) freeaddrinfo(request->block.ar_result);
}

OmResolver::Answer OmResolver::finish(Request& request) {
  Answer answer;
  const int result = gai_error(&request.block);
  if (result == 0 && pickAddress(request.block.ar_result, answer.address)) {
    answer.found = true;
    keep(request.name, answer.address);
  } else {
    answer.failure = result == 0 ? NO_DATA : asHostError(result);
  }
  if (request.block.ar_result != nullptr) freeaddrinfo(request.block.ar_result);
  request.block.ar_result = nullptr;
  return answer;
}

void OmResolver::wakeCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  char bytes[64];
  while (read(wakePipe().readFd, bytes, sizeof bytes) > 0) {
  }

  abandoned_.remove_if([](const std::unique_ptr<Request>& r) {
    if (gai_error(&r->block) == EAI_INPROGRESS) return false;
    if (r->block.ar_result != nullptr) freeaddrinfo(r->block.ar_result);
    return true;
  });

  // Collected first: a receiver may start or cancel look-ups.
  Owned ended;
  for (auto it = running_.begin(); it != running_.end();) {
    if (gai_error(&(*it)->block) == EAI_INPROGRESS) {
      ++it;
      continue;
    }
    loop_.RemoveTimeoutEvent((*it)->deadline, &(*it)->timeoutCallback);
    ended.push_back(std::move(*it));
    it = running_.erase(it);
  }
  for (auto& r : ended) {
    const Answer answer = finish(*r);
    r->done->Dispatch(answer);
  }
}

void OmResolver::timeoutCB(OmEventCallback*, OmEvent::cbdispatch reason, Request* request) {
  if (reason != OmEvent::fired) return;
  std::unique_ptr<Request> r = take(request);
  if (r == nullptr) return;
  Answer answer;
  if (gai_error(&r->block) != EAI_INPROGRESS) {
    answer = finish(*r);  // ended just now; its wake-up finds nothing more to do
  } else {
    answer.failure = TRY_AGAIN;
  }
  Callback* done = r->done;
  abandon(std::move(r));
  done->Dispatch(answer);
}

bool OmResolver::recall(const std::string& name, Answer& answer) {
  const auto it = cache_.find(name);
  if (it == cache_.end()) return false;
  if (it->second.until <= OmTimeVal::now()) {
    cache_.erase(it);
    return false;
  }
  answer = Answer();
  answer.found = true;
  answer.address = it->second.address;
  return true;
}

void OmResolver::keep(const std::string& name, const OmInetAddr& address) {
  if (cacheSeconds_ == 0 || cacheLimit_ == 0) return;
  const OmTimeVal now = OmTimeVal::now();
  if (cache_.size() >= cacheLimit_ && cache_.find(name) == cache_.end()) {
    std::erase_if(cache_, [&now](const auto& entry) { return entry.second.until <= now; });
  }
  if (cache_.size() >= cacheLimit_ && cache_.find(name) == cache_.end()) {
    // Full of live entries: the one that would go first goes now.
    cache_.erase(std::min_element(cache_.begin(), cache_.end(), [](const auto& a, const auto& b) {
      return a.second.until < b.second.until;
    }));
  }
  cache_[name] = Kept{address, now.PlusSeconds(cacheSeconds_)};
}
