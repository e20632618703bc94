#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "foundation/event/OmEventLoop.h"
#include "foundation/event/event_test_util.h"
#include "foundation/string/OmContainers.h"
#include "FakeEnv.h"

namespace {

using Log = std::vector<std::string>;
using Static = OmStaticCallback<OmEvent::cbdispatch>;

// The list against a quicksorted reference, taking the first out every takeEvery insertions.
void ExpectSameOrderAsQuicksort(const std::vector<unsigned>& millis, size_t takeEvery) {
  std::vector<Static> cbs(millis.size(), Static(nullptr));
  std::vector<std::unique_ptr<OmEventTimeout>> records;
  OmISortedList<OmEventTimeout> reference;
  OmTimeoutList list;
  for (size_t i = 0; i < millis.size(); ++i) {
    const OmTimeVal when = OmTimeVal(100, 0).PlusMilliseconds(millis[i]);
    records.push_back(std::make_unique<OmEventTimeout>(OmEventTimeout{&cbs[i], when}));
    reference.Insert(records.back().get());
    list.Insert(&cbs[i], when);
    if (takeEvery != 0 && i % takeEvery == takeEvery - 1) {
      ASSERT_EQ(reference[0]->callback, list.TakeFirst().callback) << "insertion " << i;
      reference.RemoveAt(0);
    }
    ASSERT_EQ(reference.Length(), list.Length());
    for (size_t k = 0; k < list.Length(); ++k) {
      ASSERT_EQ(reference[k]->callback, list[k].callback) << "insertion " << i << ", place " << k;
    }
  }
}

TEST(TimeoutListTest, KeepsTheQuicksortOrderWithAndWithoutEqualTimes) {
  // A pseudo-random run with many equal times, taken from as it goes.
  std::vector<unsigned> mixed;
  for (unsigned x = 7, i = 0; i < 300; ++i) mixed.push_back(((x = x * 1103515245 + 12345) >> 16) & 63);
  const struct {
    std::vector<unsigned> millis;
    size_t takeEvery;
  } cases[] = {
      {{50, 30, 90, 10, 70, 20, 80}, 0},      // distinct: plain ascending order
      {{10, 20, 30, 40, 50, 60}, 2},          // appended in order, taken from the front
      {{5, 5, 5, 5}, 0},                      // one group of equal times
      {{20, 10, 20, 10, 30, 20, 5, 40}, 0},   // several groups
      {{10, 10, 60, 50, 40, 30, 20}, 3},      // a group reordered by later insertions
      {mixed, 3},
  };
  for (const auto& c : cases) ExpectSameOrderAsQuicksort(c.millis, c.takeEvery);
}

TEST(TimeoutListTest, DescriptorReadyEveryTurnDoesNotStarveADueTimeout) {
  const OmTimeVal start(1000000, 0);
  FakeEnv env(start);
  OmUnixProcess process;
  OmEventLoop loop(&process);
  int sv[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
  ASSERT_EQ(1, write(sv[1], "x", 1));  // never read: readable in every turn
  Log log;
  Probe reader("reader", &log), first("first", &log), second("second", &log),
      later("later", &log);
  loop.AddFileEvent(static_cast<unsigned>(sv[0]), true, false, &reader);
  loop.AddTimeoutEvent(start, &first);
  loop.AddTimeoutEvent(OmTimeVal(start.seconds, 1), &second);
  env.now = start.PlusSeconds(1);
  loop.AddTimeoutEvent(start.PlusSeconds(5), &later);

  // One due timeout per turn, after the descriptors' pass; none before it is due.
  const Log expected[] = {{"reader", "first"}, {"reader", "second"}, {"reader"}};
  for (const Log& turn : expected) {
    log.clear();
    loop.RunOneTurn();
    EXPECT_EQ(turn, log);
  }
  EXPECT_EQ(1u, loop.TimeoutCount());
  close(sv[0]);
  close(sv[1]);
}

TEST(TimeoutListTest, BatchedTimeoutsRideAlongInListOrderUntilOneIsNotDueOrNotBatched) {
  const OmTimeVal start(1000000, 0);
  FakeEnv env(start);
  OmEventLoop loop(nullptr);
  Log log;
  Probe plain("plain", &log), a("a", &log), b("b", &log), soon("soon", &log), other("other", &log),
      c("c", &log), late("late", &log);
  const auto at = [&](long us) { return OmTimeVal(start.seconds, static_cast<uint32_t>(us)); };
  loop.AddTimeoutEvent(start, &plain);
  for (auto [us, cb] : {std::pair{2L, &b}, {1L, &a}, {900L, &soon}, {960L, &c}, {2000000L, &late}}) {
    loop.AddBatchedTimeoutEvent(us < 1000000 ? at(us) : start.PlusSeconds(2), cb);
  }
  loop.AddTimeoutEvent(at(950), &other);  // plain: ends a batch, starts the next turn's
  a.action = [&](OmEvent::cbdispatch) { loop.RemoveTimeoutEvent(at(2), &b); };
  for (const Log& turn : {Log{"plain", "a", "b:removed", "soon"}, Log{"other", "c"}}) {
    log.clear();
    loop.RunOneTurn();
    EXPECT_EQ(turn, log);
  }
  EXPECT_EQ(1u, loop.TimeoutCount());
}

}  // namespace
