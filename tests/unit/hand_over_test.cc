// The reading turn between the input thread and the application's thread.
#include "transport/hand_over.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

#include "platform/io.h"

namespace varn::transport {
namespace {

PacketBody Body(const char* text) {
  PacketBody p;
  p.length = std::strlen(text);
  p.data = static_cast<char*>(std::malloc(p.length + 1));
  std::memcpy(p.data, text, p.length + 1);
  return p;
}

// The input thread (this test's thread) holds the turn. Whatever the order
// in which a handed-over packet and a yield meet the application's take,
// once the application is back in its own code the input thread gets the
// turn back: otherwise interrupts would go unread while it computes.
TEST(HandOverTest, TurnComesBackWhenAYieldedTakeWasAnsweredByAHandedOverPacket) {
  int wake = platform::CreateWakeFd();
  ASSERT_GE(wake, 0);
  int answered_by_packet_after_yield = 0;
  for (int round = 0; round < 300; ++round) {
    HandOver hand_over;
    hand_over.EnableTurns(wake);
    ASSERT_TRUE(hand_over.AwaitTurn());
    auto take = std::async(std::launch::async, [&hand_over] {
      PacketBody p;
      HandOver::Next next = hand_over.TakeOrRead(&p, nullptr);
      if (next == HandOver::Next::kRead) {
        hand_over.DoneReading();
      } else {
        std::free(p.data);
      }
      return next;
    });
    // Waits until the take asked for the turn.
    platform::WaitReadableAmong(nullptr, nullptr, 0, wake, 5000);
    platform::DrainWake(wake);
    hand_over.Push(Body("DONE"));
    bool yielded = hand_over.YieldIfAsked();
    ASSERT_EQ(take.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    if (yielded && take.get() == HandOver::Next::kPacket) ++answered_by_packet_after_yield;
    // The application is in its own code now.
    auto back = std::async(std::launch::async, [&hand_over] { return hand_over.AwaitTurn(); });
    bool came_back = back.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
    hand_over.Close();  // releases a stuck AwaitTurn
    ASSERT_TRUE(came_back) << "round " << round;
    EXPECT_TRUE(back.get());
  }
  platform::Close(wake);
  // Not asserted: the race is met only in some rounds, depending on timing.
  RecordProperty("packet_after_yield_rounds", answered_by_packet_after_yield);
}

}  // namespace
}  // namespace varn::transport
