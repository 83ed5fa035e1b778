// Debug mode's input: text lines on standard input instead of packets.
//
// The library is initialised in debug mode, once, with standard input at
// its end, so that its input thread stops at once. For each input the
// debug channel's own line reader (the loop the input thread runs) reads
// the input from an in-memory file on the calling thread and hands its
// lines over; the receive path then takes them as messages (skipping
// comments and blank lines, splitting the category word off), and while
// a BEGIN's stream is open reads them as DATA records up to an END line,
// the way an application's stream reads do. A reader asking with a buffer
// below the longest line is refused without a line being used up.
//
// Checks: the texts stored for the developer's row hold no line end, and
// stream records and END texts are terminated inside the buffer. A KILL
// line would end the process through varn_deinit; here the shut-down is
// left out so that the run goes on.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/library_state.h"
#include "core/rows.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/library_reset.h"
#include "transport/channel.h"
#include "transport/input_thread.h"
#include "transport/upcalls.h"
#include "varn.h"

namespace {

namespace core = varn::core;
namespace transport = varn::transport;
using varn::fuzz::MemoryInput;

// The address every debug line comes from.
constexpr const char* kDeveloper = "VarnDebugSrcStr";
// The largest line and the buffer a stream read must offer for it.
constexpr std::size_t kLineBlock = 1000000;

MemoryInput* g_input = nullptr;
std::vector<char>* g_buffer = nullptr;

int DeveloperRow() {
  int count = core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    const VarnEntry& e = VarnMessage[i];
    if (e.state != ENTRY_FREE && e.address != nullptr && std::strcmp(e.address, kDeveloper) == 0) {
      return i;
    }
  }
  return -1;
}

void CheckRowText(int h) {
  if (h < 0 || VarnMessage[h].last_data == nullptr) return;
  const char* text = VarnMessage[h].last_data;
  FUZZ_CHECK(std::strpbrk(text, "\r\n") == nullptr);
}

// One stream read of row h. False at the end of the stream or the input.
bool ReadStreamLine(int h, unsigned step) {
  int category = 0;
  std::size_t length = 0;
  if (step % 4 == 3) {
    // A buffer one byte short of the longest line: refused with the size
    // to offer, and no line is used up.
    VarnErrorNo = 0;
    FUZZ_CHECK(varn_receive_read_data(h, &category, g_buffer->data(), kLineBlock - 1, &length, 0) ==
               0);
    FUZZ_CHECK(VarnErrorNo == VARN_E_TOO_LONG && length == kLineBlock);
  }
  VarnErrorNo = 0;
  if (!varn_receive_read_data(h, &category, g_buffer->data(), kLineBlock, &length, 1)) {
    return false;
  }
  FUZZ_CHECK(length < kLineBlock && (*g_buffer)[length] == '\0');
  if (category == VARN_END) {
    FUZZ_CHECK((*g_buffer)[length + 1] == '\0');
    CheckRowText(h);
    return false;
  }
  FUZZ_CHECK(category == VARN_DATA);
  FUZZ_CHECK(std::strlen(g_buffer->data()) == length);
  FUZZ_CHECK(std::strpbrk(g_buffer->data(), "\r\n") == nullptr);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  core::OnApplicationThread();
  g_input = new MemoryInput();
  g_buffer = new std::vector<char>(kLineBlock + 2);
  // Standard input at its end: the input thread varn_init starts reads
  // nothing and closes the hand-over.
  int null_fd = open("/dev/null", O_RDONLY);
  FUZZ_CHECK(null_fd >= 0 && dup2(null_fd, 0) == 0);
  close(null_fd);
  char program[] = "debug_lines_fuzz";
  char flag[] = "-quon_debug";
  char* argv[] = {program, flag, nullptr};
  int argc = 2;
  varnHandle parent = -1;
  FUZZ_CHECK(varn_init(&argc, argv, &parent) == 1 && varn_debug_true());
  transport::PacketBody body;
  while (transport::TakeHandedOver(&body)) std::free(body.data);
  // As varn_init wires the layers above, without the shut-down.
  transport::UpperLayer upper;
  upper.enable = varnP_enable_server_protocal;
  upper.disable = varnP_disable_server_protocal;
  upper.notify = varnP_notify;
  upper.disconnect = varnP_disconnect_process;
  transport::RegisterUpperLayer(upper);
  core::MutableSetup().quonin_fd = g_input->fd();
  varn::fuzz::ResetLibraryState();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  core::OnApplicationThread();
  g_input->Reset(data, size);
  // The input thread's loop: every line of the input is handed over, then
  // the hand-over is closed (it was closed already; the lines still go).
  transport::ActiveChannel().RunInput();

  bool in_stream = false;
  const unsigned steps = 2 * static_cast<unsigned>(size) + 8;
  unsigned step = 0;
  for (; step < steps; ++step) {
    int h = DeveloperRow();
    if (in_stream && h >= 0) {
      in_stream = ReadStreamLine(h, step);
      if (!in_stream && VarnErrorNo == VARN_E_DAEMON_GONE) break;
      continue;
    }
    // So that the row's last category tells what this line was.
    if (h >= 0) core::Row(h).ClearLast();
    VarnErrorNo = 0;
    int r = varn_recv_read_and_parse_message(0);
    if (r == 0 && VarnErrorNo == VARN_E_DAEMON_GONE) break;  // no line left
    h = DeveloperRow();
    CheckRowText(h);
    if (h >= 0 && VarnMessage[h].last_category == VARN_BEGIN) in_stream = true;
  }
  FUZZ_CHECK(step < steps);

  // Lines the stream reads left behind are taken now.
  transport::PacketBody body;
  while (transport::TakeHandedOver(&body)) std::free(body.data);
  varn::fuzz::ResetLibraryState();
  return 0;
}
