#include "foundation/string/OmEnv.h"

#include <sys/time.h>
#include <unistd.h>

namespace {

class SystemEnv : public OmEnv {
 public:
  OmTimeVal Now() override {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return OmTimeVal(static_cast<uint32_t>(tv.tv_sec), static_cast<uint32_t>(tv.tv_usec));
  }
  void Sleep(unsigned seconds) override { ::sleep(seconds); }
  std::clock_t ProcessorClock() override { return std::clock(); }
};

OmEnv* g_current = nullptr;

}  // namespace

void OmEnv::SleepMilliseconds(unsigned ms) { ::usleep(static_cast<useconds_t>(ms) * 1000); }

OmEnv* OmEnv::Default() {
  static SystemEnv system;
  return &system;
}

OmEnv& OmEnv::Current() { return g_current != nullptr ? *g_current : *Default(); }

OmEnv* OmEnv::Install(OmEnv* env) {
  OmEnv* previous = &Current();
  g_current = env;
  return previous;
}
