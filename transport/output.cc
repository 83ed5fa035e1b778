// Packet output: building packets and writing them to the channel.
#include "transport/output.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "core/diag.h"
#include "core/library_state.h"
#include "platform/io.h"
#include "platform/mutex.h"
#include "platform/thread.h"
#include "transport/channel.h"
#include "transport/data_batch.h"
#include "transport/hub_channel.h"
#include "transport/links.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace {

using varn::core::Fixed;
namespace wire = varn::wire;
namespace platform = varn::platform;

std::recursive_mutex g_send_lock;
platform::TimedMutex g_wire_lock;
std::atomic<int> g_trace_counter{1};

// How long an interrupt waits for the wire lock held by another sender
// (the error-forwarding thread, or a status answer) before it gives up.
constexpr auto kInterruptWireWait = std::chrono::seconds(2);

// Bytes of a private packet buffer reserved up front: a packet with a
// status text and two addresses fits (need = body + 7 + status text).
constexpr std::size_t kInterruptPacketReserve = 2 * VARN_STATUS_TEXT_SIZE + 1024;

thread_local bool t_interrupt_context = false;
thread_local bool t_interrupt_wire_busy = false;
thread_local bool t_private_buffer = false;
thread_local bool t_wire_only = false;

// The shared packet buffer: owned by the application's thread.
char* g_shared GUARDED_BY(varn::core::kLibrary) = nullptr;
std::size_t g_shared_capacity GUARDED_BY(varn::core::kLibrary) = 0;

// Buffer of a thread that does not use the shared one.
std::vector<char>& PrivateBuffer() {
  thread_local std::vector<char> buffer;
  return buffer;
}

// A buffer with more than `body + 7` bytes for the calling thread; grows
// to body + 7 + 5800 so that a run of similar packets allocates once. A
// thread without a buffer of its own is the application's thread.
char* PacketBuffer(std::size_t body) NO_THREAD_SAFETY_ANALYSIS {
  std::size_t need = body + 7 + VARN_STATUS_TEXT_SIZE;
  if (t_private_buffer) {
    auto& b = PrivateBuffer();
    if (b.size() <= body + 7) b.resize(need);
    return b.data();
  }
  if (g_shared_capacity <= body + 7) {
    char* grown = static_cast<char*>(std::realloc(g_shared, need));
    if (grown == nullptr) return nullptr;
    g_shared = grown;
    g_shared_capacity = need;
  }
  return g_shared;
}

// Takes the wire lock as the calling thread may. False when an interrupt
// cannot have it.
bool LockWire() TRY_ACQUIRE(true, g_wire_lock) {
  if (!t_interrupt_context) {
    g_wire_lock.Lock();
    return true;
  }
  if (t_interrupt_wire_busy) return false;
  return g_wire_lock.TryLockFor(kInterruptWireWait);
}

// Acknowledgements that wait to leave with the next packet written, or
// until their writer next waits for input (see SendAcknowledgement). They
// all go the same way: through the hub, or on one link.
constexpr std::size_t kCorkCapacity = 1024;
char g_corked[kCorkCapacity] GUARDED_BY(g_wire_lock);
std::size_t g_corked_size GUARDED_BY(g_wire_lock) = 0;
int g_corked_route GUARDED_BY(g_wire_lock) = -1;
std::atomic<bool> g_corked_pending{false};  // g_corked_size > 0, readable without the lock

// Whether the application's thread may cork its acknowledgements now.
thread_local bool t_cork_allowed = false;

// The destination of a built packet (after its length digits).
std::string_view DestinationOf(const char* packet, std::size_t size) {
  std::string_view rest(packet, size);
  rest.remove_prefix(rest.size() < wire::kLengthDigits ? rest.size() : wire::kLengthDigits);
  return rest.substr(0, rest.find(' '));
}

// Where a built packet goes: the write end of a link to its destination,
// or -1 for the hub.
int RouteOf(const char* packet, std::size_t size) REQUIRES(g_wire_lock) {
  return varn::transport::LinkWriteFd(DestinationOf(packet, size));
}

// Moves a two-piece write past `written` bytes, into the second piece if
// need be.
void Advance(const char** first, std::size_t* first_left, const char** second,
             std::size_t* second_left, std::size_t written) {
  if (written >= *first_left) {
    written -= *first_left;
    *first = *second + written;
    *first_left = *second_left - written;
    *second_left = 0;
  } else {
    *first += written;
    *first_left -= written;
  }
}

// Writes a, then b (when b_size > 0), on a link: one system call for both
// where it can. False when the link failed before any of the bytes went
// out (its peer closed its end): the link then carries nothing more.
// Bytes after a partial write are dropped: the peer that stopped reading
// half way would not read them either.
bool WriteToLink(int fd, const char* a, std::size_t a_size, const char* b, std::size_t b_size) {
  constexpr std::size_t kLargeWrite = 16 * 1024;
  if (a_size + b_size >= kLargeWrite) varn::transport::NoteLargeWrite(fd);
  bool any = false;
  while (a_size > 0) {
    long n = b_size > 0 ? platform::WriteGather(fd, false, a, a_size, b, b_size)
                        : platform::WriteSome(fd, a, a_size);
    if (n <= 0) {
      // The write end blocks and interrupted writes are retried below: a
      // failure means the peer's end is gone.
      varn::transport::LinkWriteFailed(fd);
      return any;
    }
    any = true;
    Advance(&a, &a_size, &b, &b_size, static_cast<std::size_t>(n));
  }
  return true;
}

// Writes a, then b (when b_size > 0), to the hub: together in one system
// call when there are both. 0 or the error number.
int WriteToHubChannel(const char* first, std::size_t first_left, const char* second,
                      std::size_t second_left) {
  bool socket = VarnChanType == VARN_CHAN_SOCKET;
  int fd = socket ? Fixed().socket_fd : Fixed().quonout_fd;
  while (first_left > 0) {
    std::size_t written = 0;
    bool ok;
    if (second_left > 0) {
      long n = platform::WriteGather(fd, socket, first, first_left, second, second_left);
      ok = n >= 0;
      written = ok ? static_cast<std::size_t>(n) : 0;
    } else {
      ok = write_file_win(Fixed().quonout_fd, first, first_left, &written);
    }
    if (!ok && written == 0) {
      int e = platform::LastError();
      if (e == EINTR || e == EAGAIN) continue;  // nothing lost: try the rest again
      return VARN_E_PIPE_WRITE;
    }
    Advance(&first, &first_left, &second, &second_left, written);
  }
  return 0;
}

// Writes to the hub (route -1) or on a link. Packets a link refused go
// through the hub instead: it relays them when the peer still reads its
// channel, and answers as for any process that ended otherwise. 0 or the
// error number.
int WriteRoute(int route, const char* a, std::size_t a_size, const char* b, std::size_t b_size) {
  if (route >= 0 && WriteToLink(route, a, a_size, b, b_size)) return 0;
  return WriteToHubChannel(a, a_size, b, b_size);
}

// Writes the corked acknowledgements, then size bytes of buffer (none when
// null), each the way it goes: together in one system call when they go the
// same way. 0 or the error number; the corked bytes are gone either way.
int WriteWithCorked(const char* buffer, std::size_t size) REQUIRES(g_wire_lock) {
  // Corked bytes for a link that has ended go through the hub.
  if (varn::transport::CloseEndedWriteEnds(g_corked_route)) g_corked_route = -1;
  std::size_t corked = g_corked_size;
  int corked_route = g_corked_route;
  g_corked_size = 0;
  g_corked_pending.store(false, std::memory_order_relaxed);
  if (buffer == nullptr || size == 0) {
    return corked > 0 ? WriteRoute(corked_route, g_corked, corked, nullptr, 0) : 0;
  }
  int route = RouteOf(buffer, size);
  if (corked == 0) return WriteRoute(route, buffer, size, nullptr, 0);
  if (route == corked_route) return WriteRoute(route, g_corked, corked, buffer, size);
  int error = WriteRoute(corked_route, g_corked, corked, nullptr, 0);
  int second = WriteRoute(route, buffer, size, nullptr, 0);
  return error != 0 ? error : second;
}

// Writes a whole packet to the hub; 0 or the error number.
int WritePacket(char* buffer, std::size_t size) {
  varn::transport::SendLockUnlessExempt send_lock;
  bool through_hub = false;
  {
    // A hold that arrives while this thread has bytes of a packet on the
    // channel waits until the packet is whole.
    platform::DeferHoldScope defer;
    if (!LockWire()) return VARN_E_PIPE_WRITE;
    through_hub = RouteOf(buffer, size) < 0;
    int error = WriteWithCorked(buffer, size);
    g_wire_lock.Unlock();
    if (error != 0) return error;
  }
  if (through_hub && varn::transport::LinksEnabled()) {
    varn::transport::MaybeAskForLink(DestinationOf(buffer, size));
  }
  // Packets sent outside exchanges are not traced: the error-forwarding
  // thread's trace line would go back into the error pipe and be forwarded
  // again.
  if (Fixed().trace && !t_wire_only) {
    buffer[size] = '\0';
    varn::core::Diag(">>> quonout ---> %d [%s]\n", g_trace_counter.fetch_add(1), buffer);
  }
  return 0;
}

// Builds a packet into buf (capacity > packet size) and writes it with
// `write` (the hub, or the active channel).
int BuildAndWrite(char* buf, std::size_t capacity, const char* destination, const char* source,
                  int category, const void* payload, std::size_t length,
                  int (*write)(char*, std::size_t) = WritePacket) {
  std::size_t size = 0;
  wire::WireError e = wire::BuildPacket(buf, capacity, destination ? destination : "",
                                        source ? source : "", category, payload, length, &size);
  if (e != wire::WireError::kOk) return static_cast<int>(e);
  buf[size] = '\0';  // the spare byte, for the trace line
  return write(buf, size);
}

int WriteToActiveChannel(char* packet, std::size_t size) {
  return varn::transport::ActiveChannel().WritePacket(packet, size);
}

int Fail(int error) {
  VarnErrorNo = error;
  return 0;
}

}  // namespace

namespace varn::transport {

int WriteToHub(char* packet, std::size_t size) { return WritePacket(packet, size); }

void SetInterruptContext(bool on, bool wire_busy) {
  t_interrupt_context = on;
  t_interrupt_wire_busy = on && wire_busy;
}
bool InInterruptContext() { return t_interrupt_context; }
void UsePrivatePacketBuffer() {
  t_private_buffer = true;
  // Sized at once for every packet an interrupt sends (acknowledgements,
  // status answers, the exit notice with its text): those sends run while
  // the application's thread is held, perhaps inside the allocator, and
  // must not wait for its lock.
  PrivateBuffer().resize(kInterruptPacketReserve);
}

SendLockUnlessExempt::SendLockUnlessExempt() : locked_(!t_interrupt_context && !t_wire_only) {
  if (locked_) g_send_lock.lock();
}
SendLockUnlessExempt::~SendLockUnlessExempt() {
  if (locked_) g_send_lock.unlock();
}

WireOnlyScope::WireOnlyScope() : previous_(t_wire_only) { t_wire_only = true; }
WireOnlyScope::~WireOnlyScope() { t_wire_only = previous_; }

int SendPacketQuiet(const char* destination, const char* source, int category, const void* payload,
                    std::size_t length) {
  if (!t_private_buffer) {
    return SendSmallPacketQuiet(destination, source, category, payload, length);
  }
  if (length == 0 && payload != nullptr) length = std::strlen(static_cast<const char*>(payload));
  std::size_t size = wire::PacketSize(destination ? destination : "", source ? source : "",
                                      category, payload ? length : 0);
  if (size == 0) {
    return wire::CategoryWord(category) == nullptr ? VARN_E_CATEGORY : VARN_E_TOO_LONG;
  }
  char* buf = PacketBuffer(size - wire::kLengthDigits);
  return BuildAndWrite(buf, size + 1, destination, source, category, payload, length);
}

void AllowCorking(bool on) { t_cork_allowed = on; }

int SendAcknowledgement(const char* destination, const char* source) {
  // Sent at once by the input thread, during an interrupt, with trace lines
  // on (they keep the order of the wire), and where nobody would flush it:
  // the application's thread corks only what follows a packet it read
  // itself, so that the input thread takes the turn back and flushes
  // within kReclaimMs when the application stays busy.
  if (!t_cork_allowed || t_interrupt_context || Fixed().trace || !ActiveChannel().ReadsByTurns()) {
    return varn_send_packet(destination, source, VARN_ACK, nullptr, 0);
  }
  char packet[kCorkCapacity];
  std::size_t size = 0;
  if (wire::BuildPacket(packet, sizeof packet, destination, source, VARN_ACK, nullptr, 0, &size) !=
      wire::WireError::kOk) {
    return varn_send_packet(destination, source, VARN_ACK, nullptr, 0);
  }
  platform::DeferHoldScope defer;
  g_wire_lock.Lock();
  int error = 0;
  int route = RouteOf(packet, size);
  if (g_corked_size + size > kCorkCapacity || (g_corked_size > 0 && route != g_corked_route)) {
    error = WriteWithCorked(nullptr, 0);
  }
  std::memcpy(g_corked + g_corked_size, packet, size);
  g_corked_size += size;
  g_corked_route = route;
  g_corked_pending.store(true, std::memory_order_relaxed);
  g_wire_lock.Unlock();
  if (error != 0) {
    VarnErrorNo = error;
    return 0;
  }
  return 1;
}

int SendLinkOver(const char* peer) {
  std::string payload = wire::BuildLinkControl(wire::LinkVerb::kOver);
  char packet[VARN_STATUS_TEXT_SIZE];
  std::size_t size = 0;
  if (wire::BuildPacket(packet, sizeof packet, peer, Fixed().own_address, VARN_PING, payload.data(),
                        payload.size(), &size) != wire::WireError::kOk) {
    return VARN_E_TOO_LONG;
  }
  WireOnlyScope wire_only;
  platform::DeferHoldScope defer;
  if (!LockWire()) return VARN_E_PIPE_WRITE;
  // Nothing else can go to the peer between this PING, the last packet to
  // it through the hub, and the switch.
  int error = WriteWithCorked(packet, size);
  if (error == 0) varn::transport::StartWritingLink(peer);
  g_wire_lock.Unlock();
  return error;
}

void CloseEndedLinks(bool wait) {
  platform::DeferHoldScope defer;
  // A bounded wait: a writer blocked on a full channel must not hold up
  // the process's end. Where the lock is not had, the holder's next write
  // closes them.
  auto bound = wait ? std::chrono::milliseconds(kInterruptWireWait) : std::chrono::milliseconds(0);
  if (!g_wire_lock.TryLockFor(bound)) return;
  if (CloseEndedWriteEnds(g_corked_route)) g_corked_route = -1;
  g_wire_lock.Unlock();
}

void FlushCorked() {
  if (!g_corked_pending.load(std::memory_order_relaxed)) return;
  platform::DeferHoldScope defer;
  g_wire_lock.Lock();
  WriteWithCorked(nullptr, 0);
  g_wire_lock.Unlock();
}

int SendSmallPacketQuiet(const char* destination, const char* source, int category,
                         const void* payload, std::size_t length) {
  char buf[VARN_STATUS_TEXT_SIZE];
  if (length == 0 && payload != nullptr) length = std::strlen(static_cast<const char*>(payload));
  const char* word = wire::CategoryWord(category);
  if (word == nullptr) return VARN_E_CATEGORY;
  std::size_t fixed =
      wire::BodyLength(destination ? destination : "", source ? source : "", word, 1) +
      wire::kLengthDigits - 1;
  std::size_t room = sizeof buf - 1 > fixed + 3 ? sizeof buf - 1 - fixed - 3 : 0;
  if (length > room) length = room;
  return BuildAndWrite(buf, sizeof buf - 1, destination, source, category,
                       length > 0 ? payload : nullptr, length);
}

}  // namespace varn::transport

extern "C" int varn_send_init(void) noexcept {
  varn::core::OnApplicationThread();
  varn::transport::ResetBatchForInit();
  return 1;
}

extern "C" int varn_send_packet(const char* destination, const char* source, int category,
                                const void* payload, size_t length) noexcept {
  if (category == VARN_END) {
    if (!varnP_data_batch_flush()) return 0;
    varnP_data_batch_reset();
  }
  if (length == 0 && payload != nullptr) length = std::strlen(static_cast<const char*>(payload));
  if (!varn::transport::ActiveChannel().WritesPackets()) return 1;
  std::size_t body = 0;
  const char* word = wire::CategoryWord(category);
  if (word == nullptr) {
    VarnErrorNo = VARN_E_CATEGORY;
    return 0;
  }
  body = wire::BodyLength(destination ? destination : "", source ? source : "", word,
                          payload ? length : 0);
  if (wire::kLengthDigits + body >= wire::kPacketLimit) {
    VarnErrorNo = VARN_E_TOO_LONG;
    return 0;
  }
  char* buf = PacketBuffer(body);
  if (buf == nullptr) return Fail(VARN_E_MALLOC);
  int e = BuildAndWrite(buf, body + 7, destination, source, category, payload, length,
                        WriteToActiveChannel);
  return e == 0 ? 1 : Fail(e);
}

extern "C" int varn_send_packet_signal(const char* destination, const char* source, int category,
                                       const void* payload, size_t length) noexcept {
  // These answers (STATUS, QUERY) are composed while a message is parsed,
  // possibly on the input thread; they never allocate. A payload that would
  // not fit the 5800-byte buffer (a long status text) is cut so that the
  // answer still goes out.
  int e = varn::transport::SendSmallPacketQuiet(destination, source, category, payload, length);
  return e == 0 ? 1 : Fail(e);
}

extern "C" int varnP_write_packet(char* buffer, size_t size) noexcept {
  int e = WriteToActiveChannel(buffer, size);
  return e == 0 ? 1 : Fail(e);
}

// Writes on the output channel. The wire lock (the socket write lock) is
// already held by varnP_write_packet, the only caller inside the library.
extern "C" int write_file_win(int handle, const void* buffer, size_t count,
                              size_t* written) noexcept {
  *written = 0;
  switch (VarnChanType) {
    case VARN_CHAN_SOCKET: {
      long n = varn_send(Fixed().socket_fd, buffer, count, 0);
      if (n < 0 || static_cast<size_t>(n) > count) return 0;
      *written = static_cast<size_t>(n);
      return 1;
    }
    case VARN_CHAN_PIPE:
    case VARN_CHAN_STANDALONE:
      return varn_WriteFile(handle, buffer, count, written, nullptr);
    default:
      return 0;
  }
}

extern "C" int varn_WriteFile(int handle, const void* buffer, size_t count, size_t* written,
                              void* /*overlapped*/) noexcept {
  *written = 0;
  const char* p = static_cast<const char*>(buffer);
  constexpr size_t kPiece = 2147483647;
  while (count > 0) {
    size_t piece = count < kPiece ? count : kPiece;
    long n = platform::WriteSome(handle, p, piece);
    if (n < 0) return 0;
    if (n == 0) return 0;
    *written += static_cast<size_t>(n);
    p += n;
    count -= static_cast<size_t>(n);
  }
  return 1;
}

extern "C" long varn_send(int socket, const void* buffer, size_t count, int /*flags*/) noexcept {
  const char* p = static_cast<const char*>(buffer);
  long total = 0;
  constexpr size_t kPiece = 2147483647;
  while (count > 0) {
    size_t piece = count < kPiece ? count : kPiece;
    long n = platform::SocketSend(socket, p, piece);
    if (n < 0) return -1;
    if (n == 0) break;
    total += n;
    p += n;
    count -= static_cast<size_t>(n);
  }
  return total;
}
