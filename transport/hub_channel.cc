// The channel to the hub, and the input thread's loop on it: read whole
// packets, drop PING, answer STATUS?, handle INTR and KILL with the
// application's thread held, and hand every other packet over in order.
// When the channel ends or fails the loop stops reading and hands over,
// from then on, the hub's loss (a SRVR_ERR from the hub), so that every
// wait ends with error 43.
#include "transport/hub_channel.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/diag.h"
#include "core/library_state.h"
#include "core/status.h"
#include "platform/thread.h"
#include "transport/channel.h"
#include "transport/deadline.h"
#include "transport/input_thread.h"
#include "transport/output.h"
#include "transport/packet_reader.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace varn::transport {
namespace {

using core::Diag;
using core::Fixed;

// How long the input thread waits for the application's thread to park
// before it parks it where it is (and again before it gives up).
constexpr int kHoldWaitMs = 1000;

// Holds the application's thread for a scope: the input thread has the
// library's state at its disposal meanwhile. When the hold failed
// (result() is kFailed) nothing may be touched.
class SCOPED_CAPABILITY HeldApplication {
 public:
  HeldApplication() ACQUIRE(core::kLibrary) : result_(platform::ThreadHold::Hold(kHoldWaitMs)) {}
  ~HeldApplication() RELEASE() {
    if (result_ != platform::ThreadHold::Result::kFailed) platform::ThreadHold::Release();
  }
  HeldApplication(const HeldApplication&) = delete;
  HeldApplication& operator=(const HeldApplication&) = delete;
  platform::ThreadHold::Result result() const { return result_; }

 private:
  platform::ThreadHold::Result result_;
};

// The hub's loss as a packet from the hub: what the application's thread
// takes once the channel has ended.
PacketBody HubLossPacket() {
  const char* own = Fixed().own_address;
  std::size_t size = wire::PacketSize(own, wire::kHubAddress, VARN_SRVR_ERR, 0);
  char* packet = static_cast<char*>(std::malloc(size + 1));
  PacketBody p;
  if (packet == nullptr || wire::BuildPacket(packet, size, own, wire::kHubAddress, VARN_SRVR_ERR,
                                             nullptr, 0, &size) != wire::WireError::kOk) {
    std::free(packet);
    return p;
  }
  // The body is what follows the length digits.
  std::memmove(packet, packet + wire::kLengthDigits, size - wire::kLengthDigits);
  p.length = size - wire::kLengthDigits;
  packet[p.length] = '\0';
  p.data = packet;
  return p;
}

// Answers STATUS? from the status the application's thread last set,
// without holding it: a busy or sleeping process answers at once and its
// sleep is not cut short.
void AnswerStatusQuery(const wire::Header& header) {
  char text[VARN_STATUS_TEXT_SIZE];
  int status = core::StatusSnapshot(text, sizeof text);
  std::string answer = wire::BuildStatusAnswer(status, text);
  std::string destination(header.source);
  std::string source(header.destination);
  WireOnlyScope wire_only;
  SendSmallPacketQuiet(destination.c_str(), source.c_str(), VARN_STATUS, answer.c_str(), 0);
}

void ReportInterruptFailure() {
  if (VarnErrorNo != 0) {
    Diag("@@@ Thread=%u varnP_thread_quonin(2): INTR processing failed: VarnErrorNo=%d\n",
         platform::CurrentThreadId(), VarnErrorNo);
  }
}

// Carries out an INTR or KILL on the calling thread, which has the
// library's state at its disposal: the input thread holding the
// application's thread, or the application's thread itself, met inside its
// wait. wire_busy: the held thread may own the wire lock.
void RunInterrupt(PacketBody packet, int category, bool wire_busy) REQUIRES(core::kLibrary) {
  if (Fixed().trace) {
    Diag("@@@ Thread=%u <<< quonin <--- [%s]\n", platform::CurrentThreadId(), packet.data);
  }
  // The application may be in the middle of a call that looks at
  // VarnErrorNo; an INTR leaves it as it was.
  int saved_error = VarnErrorNo;
  bool was_interrupt = InInterruptContext();
  SetInterruptContext(true, wire_busy);
  char *destination, *source, *payload;
  int parsed_category = 0;
  std::size_t payload_length = 0;
  if (!varn_recv_parse_message(packet.data, packet.length, &destination, &source, &parsed_category,
                               &payload, &payload_length)) {
    ReportInterruptFailure();
  } else if (!varn_parse_message(source, destination, payload, parsed_category, payload_length)) {
    ReportInterruptFailure();
  }
  SetInterruptContext(was_interrupt);
  std::free(packet.data);
  if (category == VARN_KILL) EndProcess(0);
  if (VarnErrorNo != VARN_E_DAEMON_GONE) VarnErrorNo = saved_error;
}

void HandleInterrupt(PacketBody packet, int category) {
  HeldApplication held;
  if (held.result() == platform::ThreadHold::Result::kFailed) {
    // The application's thread does not let itself be held (it blocks the
    // hold signal). An INTR then reaches it at its next read, like any
    // message; a KILL ends the process without touching library state.
    if (category == VARN_INTR) {
      HandToApplication(packet);
      return;
    }
    Diag("@@@ Thread=%u varnP_thread_quonin(2): KILL without holding the application\n",
         platform::CurrentThreadId());
    std::free(packet.data);
    EndProcess(0);
  }
  // Parked inside a deferred section, the held thread may own the wire
  // lock in the middle of a packet: nothing can be written until it goes on.
  RunInterrupt(packet, category, held.result() == platform::ThreadHold::Result::kHeldInSection);
}

// What a packet read from the channel is for.
enum class Kind { kInterrupt, kStatusQuery, kPing, kMessage, kBad };
Kind KindOf(const PacketBody& packet, wire::Header* header, int* category) {
  if (wire::SplitBody(packet.data, packet.length, header) != wire::WireError::kOk) {
    Diag("@@@ Thread=%u varnP_thread(2): bad packet received : length=%06d buffer=%s\n",
         platform::CurrentThreadId(), static_cast<int>(packet.length), packet.data);
    return Kind::kBad;
  }
  *category = VARN_NONE;
  wire::CategoryFromWord(header->word, category);
  if (*category == VARN_KILL || *category == VARN_INTR) return Kind::kInterrupt;
  if (*category == VARN_STATUS_Q) return Kind::kStatusQuery;
  if (*category == VARN_PING) return Kind::kPing;
  return Kind::kMessage;
}

// Handles a status query or a ping on the thread that read it. True when
// the packet was one (and is freed).
bool AnsweredOnArrival(Kind kind, PacketBody packet, const wire::Header& header) {
  if (kind != Kind::kStatusQuery && kind != Kind::kPing) return false;
  if (Fixed().trace) {
    Diag("@@@ Thread=%u <<< quonin <--- [%06zu%s]\n", platform::CurrentThreadId(), packet.length,
         packet.data);
  }
  // A status query is answered here so that a process busy in its own code
  // (a server computing a long answer) still reports BUSY and its text.
  if (kind == Kind::kStatusQuery) AnswerStatusQuery(header);
  std::free(packet.data);
  return true;
}

// The input thread's loop: while it holds the reading turn it reads the
// channel, and gives the turn to the application's thread when that asks.
void PacketLoop() {
  for (;;) {
    if (!AwaitInputTurn()) return;  // the application's thread met the end
    // Acknowledgements the application's thread corked before it got busy.
    FlushCorked();
    if (Fixed().trace) Diag("@@@ Thread=%u ReadFile(1)...\n", platform::CurrentThreadId());
    PacketBody packet;
    ReadResult r = ReadHubPacket(&packet, InputTurnWakeFd(), -1, FlushCorked);
    if (r == ReadResult::kWake) {
      YieldInputTurnIfAsked();
      continue;
    }
    if (r == ReadResult::kEnd) {
      HandToApplicationLast(HubLossPacket());
      CloseHandOver();
      return;
    }
    if (r == ReadResult::kSkipped) continue;
    int count = NextInputCount();
    wire::Header header;
    int category = VARN_NONE;
    Kind kind = KindOf(packet, &header, &category);
    if (kind == Kind::kBad) {
      std::free(packet.data);
      continue;
    }
    if (Fixed().trace) {
      Diag("@@@ Thread=%u + inComing[%d]=%06zu%s\n", platform::CurrentThreadId(), count,
           packet.length, packet.data);
    }
    if (kind == Kind::kInterrupt) {
      HandleInterrupt(packet, category);
    } else if (!AnsweredOnArrival(kind, packet, header)) {
      if (Fixed().trace) {
        Diag("@@@ Thread=%u + WriteFile[%d]=%06zu%s\n", platform::CurrentThreadId(), count,
             packet.length, packet.data);
      }
      HandToApplication(packet);
    }
  }
}

// The application's thread holds the turn: the next packet meant for it,
// handling interrupts, status queries and pings on the way as the input
// thread would. kEnd at the channel's end, kTimeout at the deadline.
ReadResult ReadForApplication(PacketBody* p, std::int64_t deadline_ms) REQUIRES(core::kLibrary) {
  for (;;) {
    // Nothing leaves later than the moment this thread starts to wait.
    ReadResult r = ReadHubPacket(p, -1, deadline_ms, FlushCorked);
    if (r == ReadResult::kSkipped) continue;
    if (r == ReadResult::kEnd || r == ReadResult::kTimeout) return r;
    NextInputCount();
    wire::Header header;
    int category = VARN_NONE;
    Kind kind = KindOf(*p, &header, &category);
    if (kind == Kind::kBad) {
      std::free(p->data);
    } else if (kind == Kind::kInterrupt) {
      // The application's thread is inside the library: as good as held.
      RunInterrupt(*p, category, false);
    } else if (!AnsweredOnArrival(kind, *p, header)) {
      return ReadResult::kPacket;
    }
    *p = PacketBody{};
  }
}

// The next packet for the application's thread: handed over, or read by
// the application's thread itself when it has the turn. False when the
// deadline in force passed first.
bool TakeNext(PacketBody* p) REQUIRES(core::kLibrary) {
  AllowCorking(false);
  std::int64_t deadline_ms = CurrentDeadline();
  HandOver::Next next = TakeHandedOverOrRead(p, FlushCorked, deadline_ms);
  if (next == HandOver::Next::kPacket) return true;
  if (next == HandOver::Next::kTimeout) return false;
  if (next == HandOver::Next::kClosed) {
    *p = HubLossPacket();
    return true;
  }
  ReadResult r = ReadForApplication(p, deadline_ms);
  if (r == ReadResult::kPacket) {
    AllowCorking(true);
  } else if (r == ReadResult::kEnd) {
    // The end of the channel: no one reads it again.
    CloseHandOver();
    *p = HubLossPacket();
  }
  DoneReadingChannel();
  return r != ReadResult::kTimeout;
}

class HubChannel final : public Channel {
 public:
  void RunInput() override { PacketLoop(); }
  bool ReadsByTurns() const override { return true; }

  bool TakeBody(char** body, std::size_t* length) override REQUIRES(core::kLibrary) {
    bool trace = Fixed().trace;
    if (trace) Diag("(1) thread=%u ReadFile(1)...\n", platform::CurrentThreadId());
    PacketBody p;
    bool taken = true;
    if (InInterruptContext()) {
      // While an interrupt is handled the packet source is the channel
      // itself: the thread handling it holds the reading turn.
      ReadResult r;
      do {
        r = ReadHubPacket(&p, -1, CurrentDeadline());
      } while (r == ReadResult::kSkipped);
      if (r == ReadResult::kEnd) p = HubLossPacket();
      taken = r != ReadResult::kTimeout;
    } else {
      taken = TakeNext(&p);
    }
    if (!taken) {
      // The deadline of the wait passed; VarnErrorNo is the wait's to set.
      NoteDeadlinePassed();
      return false;
    }
    if (p.data == nullptr) {
      VarnErrorNo = VARN_E_MALLOC;
      return false;
    }
    int count = NextTakenCount();
    if (trace) {
      Diag("thread=%u <<< quonin <--- %d [%06d%s]\n", platform::CurrentThreadId(), count,
           static_cast<int>(p.length), p.data);
    }
    *body = p.data;
    *length = p.length;
    return true;
  }

  bool Split(char* body, std::size_t length, Message* m) override REQUIRES(core::kLibrary) {
    m->body = body;
    return varn_recv_parse_message(body, length, &m->destination, &m->source, &m->category,
                                   &m->payload, &m->length) != 0;
  }

  int WritePacket(char* packet, std::size_t size) override { return WriteToHub(packet, size); }

  bool StoreInRow(int h, const char* destination, const char* source, int category,
                  const char* payload, std::size_t length, std::uint32_t recv_stream,
                  std::uint32_t send_stream) override REQUIRES(core::kLibrary) {
    return StoreMessage(h, destination, source, category, payload, length, recv_stream,
                        send_stream);
  }

  int ReadStream(int h, int* category, char* buffer, std::int64_t size, std::size_t* length,
                 StreamRead how) override REQUIRES(core::kLibrary) {
    return ReadStreamRecord(h, category, buffer, size, length, how);
  }

  int SendToRow(int h, int category, const char* payload, std::size_t length) override
      REQUIRES(core::kLibrary) {
    return ProtocolStep(h, category, payload, length);
  }
};

HubChannel g_hub_channel;
Channel* g_debug_channel = nullptr;  // registered while the library loads
Channel* g_active = &g_hub_channel;  // chosen by varn_init, before the input thread starts

}  // namespace

Channel& ActiveChannel() { return *g_active; }

void ChooseChannel(bool debug) {
  g_active = debug && g_debug_channel != nullptr ? g_debug_channel : &g_hub_channel;
}

void RegisterDebugChannel(Channel* channel) { g_debug_channel = channel; }

}  // namespace varn::transport
