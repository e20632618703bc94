#ifndef QUELM_HOSTS_HOST_H_
#define QUELM_HOSTS_HOST_H_

#include <cstddef>
#include <cstdint>
#include <optional>

#include "foundation/event/OmCallback.h"
#include "foundation/event/OmTimer.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/string/OmTimeVal.h"
#include "foundation/string/OmUniString.h"
#include "hosts/Responder.h"

class OmEventLoop;
struct StatsPacket;

// A subscriber: a machine that is sent load packets over UDP at its reply
// frequency and whenever its load figures change by its threshold.
class Host final : private Responder::SentCB {
 public:
  static constexpr unsigned CPU = 1;
  static constexpr unsigned BOGO = 2;
  static constexpr unsigned VMEM = 4;
  static constexpr unsigned MIN_REPLY_FREQUENCY = 10;  // seconds

  // Rates and frequencies arrive in milliseconds.
  Host(const OmUniString& name, unsigned port, unsigned sampleRateMs, unsigned windowSize,
       unsigned replyFrequencyMs, unsigned percentChangeThreshold, unsigned id,
       const OmUniString& text, unsigned flags);
  // The same with the name's address already found: no look-up.
  Host(const OmUniString& name, unsigned port, unsigned sampleRateMs, unsigned windowSize,
       unsigned replyFrequencyMs, unsigned percentChangeThreshold, unsigned id,
       const OmUniString& text, unsigned flags, const OmInetAddr& resolved);
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  int sendLoad(StatsPacket* stats);
  void percentChange(unsigned idle);
  bool isExpired(const OmTimeVal& now) const;
  void setCacheEntries(unsigned entries) { cacheEntries = entries; }
  void sendResultsCB(OmEventCallback* cb, OmEvent::cbdispatch reason);

  bool isValid() const { return valid; }
  const OmUniString& getName() const { return name; }
  const OmInetAddr& getAddress() const { return address; }
  unsigned getPort() const { return port; }
  unsigned getSampleRate() const { return sampleRate; }     // seconds
  unsigned getWindowSize() const { return windowSize; }
  unsigned getReplyFrequency() const { return replyFrequency; }  // seconds
  unsigned getPercentChange() const { return percentChangeThreshold; }
  unsigned getId() const { return id; }
  unsigned getFlags() const { return flags; }
  unsigned getLastIdle() const { return lastIdle; }
  unsigned getLastVmem() const { return lastVmem; }
  unsigned getLastBogo() const { return lastBogo; }
  const OmTimeVal& getLastSendTime() const { return lastSendTime; }
  // Counts the sends that changed some host's last values above.
  static uint64_t sendRevision() { return sends; }
  // While not yet started: the time of its creation.
  OmTimeVal getNextSendTime() const {
    return sendTimer && sendTimer->Armed() ? sendTimer->When() : lastSendTime;
  }
  const OmUniString& getText() const { return text; }
  const OmTimeVal& getExpiryTime() const { return expiryTime; }
  // A subscription restored after a restart keeps the lifetime it had left.
  void setExpiryTime(const OmTimeVal& when) { expiryTime = when; }
  unsigned getCacheEntries() const { return cacheEntries; }

 private:
  // Sends an average; packetSent records what was sent, once it went out.
  bool send(StatsPacket* stats);
  void packetSent(const StatsPacket& stats) override;
  // Stores the wishes only; the public constructors then start the host.
  Host(const OmUniString& name, unsigned port, unsigned sampleRateMs, unsigned windowSize,
       unsigned replyFrequencyMs, unsigned percentChangeThreshold, unsigned id,
       const OmUniString& text, unsigned flags, std::nullptr_t);
  void armTimer(const OmTimeVal& when);
  // Sets the address and the times and arms the send timer.
  void start(const OmInetAddr& resolved);

  OmUniString name;
  OmInetAddr address;
  unsigned port;
  unsigned sampleRate;
  unsigned windowSize;
  unsigned replyFrequency;
  unsigned percentChangeThreshold;
  unsigned id;
  OmUniString text;
  unsigned flags;
  unsigned lastIdle = 0;
  unsigned lastVmem = 0;
  unsigned lastPmem = 0;
  unsigned lastBogo = 0;
  OmTimeVal lastSendTime;
  OmTimeVal expiryTime;
  unsigned cacheEntries = 2;
  inline static uint64_t sends = 0;
  bool valid = false;
  OmSimpleCallback<OmEvent::cbdispatch, Host> sendResultsCallback;
  // On the loop of its start; none while its name is looked up.
  std::optional<OmTimer> sendTimer;
};

#endif  // QUELM_HOSTS_HOST_H_
