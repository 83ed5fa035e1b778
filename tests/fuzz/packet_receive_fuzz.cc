// The library's receive side on the byte stream that arrives from the hub.
//
// The input is that stream. It is read by the library's packet reader from
// an in-memory file that stands for the input pipe, through a channel that
// does what the hub channel's readers do with each body (drop what does not
// split and PINGs, hand on the rest) but on the calling thread, so that one
// input runs start to end without the input thread. Every message is then
// split, parsed and filed by the real receive path: rows, answers to
// STATUS? and QUERY?, acknowledgements, the queue and its lane, streams.
// Whenever a stream is open the harness reads it the way an application
// does (with and without the lane, into small and large buffers, and from
// what has arrived), so DATA batches are cut into records on the way.
// When the input ends the channel hands over the hub's loss, as the hub
// channel does.
//
// Checks: besides the sanitizers, everything the library writes back to the
// hub must be well-formed packets, stream records must fit the buffers they
// are read into, and no input may leave state behind: rows, queue, stream,
// the reader's buffer are reset after each input.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/library_state.h"
#include "core/rows.h"
#include "process/process_list.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/library_reset.h"
#include "transport/channel.h"
#include "transport/hub_channel.h"
#include "transport/stream_buffer.h"
#include "transport/upcalls.h"
#include "transport/wire_format.h"
#include "varn.h"

// The packet reader keeps its buffer in file-local state that the library
// never resets: for the library the end of the channel is final. The
// harness compiles the reader into this file so that it can empty that
// state between inputs; the library archive's copy is then not linked.
#include "transport/packet_reader.cc"  // NOLINT(bugprone-suspicious-include)

namespace {

namespace core = varn::core;
namespace transport = varn::transport;
namespace stream = varn::transport::stream;
namespace wire = varn::wire;
using varn::fuzz::MemoryInput;

constexpr const char* kOwnAddress = "4312@lab7";
constexpr const char* kParentAddress = "5120@lab7";
constexpr const char* kStartingCommand = "sim";  // the address of a row an async start waits on

// Empties the packet reader's state (see the include above).
void ResetPacketReader() {
  transport::g_sources.clear();
  transport::g_next = 0;
  std::free(transport::g_notice.data);
  transport::g_notice = transport::PacketBody{};
  transport::EndDrain();
}

// The hub's loss, as the hub channel hands it over once its input ended:
// a SRVR_ERR body from the hub.
char* HubLossBody(std::size_t* length) {
  char packet[256];
  std::size_t size = 0;
  FUZZ_CHECK(wire::BuildPacket(packet, sizeof packet, kOwnAddress, wire::kHubAddress, VARN_SRVR_ERR,
                               nullptr, 0, &size) == wire::WireError::kOk);
  *length = size - wire::kLengthDigits;
  char* body = static_cast<char*>(std::malloc(*length + 1));
  std::memcpy(body, packet + wire::kLengthDigits, *length);
  body[*length] = '\0';
  return body;
}

// The hub channel's receive side, on the calling thread.
class StreamChannel final : public transport::Channel {
 public:
  void Start() { losses_ = 0; }
  int losses() const { return losses_; }

  void RunInput() override {}

  bool TakeBody(char** body, std::size_t* length) override {
    for (;;) {
      transport::PacketBody p;
      transport::ReadResult r = transport::ReadHubPacket(&p, -1);
      if (r == transport::ReadResult::kSkipped) continue;
      if (r == transport::ReadResult::kEnd) {
        ++losses_;
        *body = HubLossBody(length);
        return true;
      }
      FUZZ_CHECK(r == transport::ReadResult::kPacket && p.data != nullptr);
      FUZZ_CHECK(p.data[p.length] == '\0');
      // What the input thread drops on arrival: a body that does not split
      // into three tokens, and PING.
      wire::Header header;
      int category = VARN_NONE;
      if (wire::SplitBody(p.data, p.length, &header) != wire::WireError::kOk ||
          (wire::CategoryFromWord(header.word, &category) && category == VARN_PING)) {
        std::free(p.data);
        continue;
      }
      *body = p.data;
      *length = p.length;
      return true;
    }
  }

  bool Split(char* body, std::size_t length, transport::Message* m) override {
    m->body = body;
    return varn_recv_parse_message(body, length, &m->destination, &m->source, &m->category,
                                   &m->payload, &m->length) != 0;
  }

  int WritePacket(char* packet, std::size_t size) override {
    return transport::WriteToHub(packet, size);
  }

  bool StoreInRow(int h, const char* destination, const char* source, int category,
                  const char* payload, std::size_t length, std::uint32_t recv_stream,
                  std::uint32_t send_stream) override {
    return transport::StoreMessage(h, destination, source, category, payload, length, recv_stream,
                                   send_stream);
  }

  int ReadStream(int h, int* category, char* buffer, std::int64_t size, std::size_t* length,
                 StreamRead how) override {
    return transport::ReadStreamRecord(h, category, buffer, size, length, how);
  }

  int SendToRow(int h, int category, const char* payload, std::size_t length) override {
    return transport::ProtocolStep(h, category, payload, length);
  }

 private:
  int losses_ = 0;
};

StreamChannel* g_channel = nullptr;
MemoryInput* g_input = nullptr;
MemoryInput* g_output = nullptr;

void OnMessage(varnHandle h) {
  // The callback runs for a valid row, or for the hub's loss (-1).
  FUZZ_CHECK(h == -1 || (h >= 0 && h < core::ActiveCount()));
}

// The rows a running process has: its parent, and a row whose asynchronous
// start waits for ACCEPT or REJECT.
void OpenRows() {
  int h = -1;
  FUZZ_CHECK(varnP_get_new_varnHandle(&h) && h == 0);
  core::Row parent(h);
  FUZZ_CHECK(parent.OpenTo(kParentAddress, kOwnAddress));
  FUZZ_CHECK(varn_util_strcpy(&parent.entry().name, "parent"));
  FUZZ_CHECK(varnP_get_new_varnHandle(&h) && h == 1);
  core::Row starting(h);
  FUZZ_CHECK(starting.OpenTo(kStartingCommand, kOwnAddress));
  FUZZ_CHECK(varn_util_strcpy(&starting.entry().name, kStartingCommand));
  starting.set_state(core::RowState::kStarting);
}

// Everything the library wrote to the hub for this input: whole packets
// with known categories, one after another, nothing else.
void CheckOutput() {
  off_t end = lseek(g_output->fd(), 0, SEEK_END);
  FUZZ_CHECK(end >= 0);
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(end));
  FUZZ_CHECK(pread(g_output->fd(), bytes.data(), bytes.size(), 0) == end);
  std::size_t framed = 0;
  varn::fuzz::ForEachPacket(bytes.data(), bytes.size(), [&](const varn::fuzz::WirePacket& p) {
    FUZZ_CHECK(p.category != 0 && p.whole.size() % 4 == 0);
    framed += p.whole.size();
  });
  FUZZ_CHECK(framed == bytes.size());
  g_output->Reset(nullptr, 0);
}

// The row whose stream the library holds data or an end for, or that is
// inside a stream: an application reads it now.
int StreamRow() {
  const char* source = stream::Source();
  if (source[0] == '\0') return -1;
  int count = core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    const VarnEntry& e = VarnMessage[i];
    if (e.state == ENTRY_FREE || e.address == nullptr || std::strcmp(e.address, source) != 0) {
      continue;
    }
    bool open = e.recv_stream == static_cast<std::uint32_t>(core::Stream::kStreaming);
    return open || stream::Unread() > 0 || stream::Ended() ? i : -1;
  }
  return -1;
}

// Reads one piece of the stream of row h, a different way each step.
// False when the read failed.
bool ReadStreamPiece(int h, unsigned step) {
  int category = 0;
  std::size_t length = 0;
  int ok = 0;
  switch (step % 3) {
    case 0: {
      std::vector<char> buffer(4096);
      ok = varn_receive_read_data(h, &category, buffer.data(), buffer.size(), &length, 1);
      if (ok) FUZZ_CHECK(length < buffer.size());
      break;
    }
    case 1: {
      // A small buffer: a longer record is refused (34) and stays unread.
      char buffer[8];
      ok = varn_receive_read_data(h, &category, buffer, sizeof buffer, &length, 0);
      if (ok) FUZZ_CHECK(length < sizeof buffer);
      break;
    }
    default: {
      // Only what has arrived; the buffer must hold any record or end text.
      const char* end_text = stream::EndText();
      std::size_t room = stream::Unread() + (end_text ? std::strlen(end_text) : 0) + 2;
      std::vector<char> buffer(room);
      ok = varn_recv_read_data_from_VarnInStreamData(h, &category, buffer.data(), &length);
      if (ok && category == VARN_DATA) FUZZ_CHECK(length < room);
      break;
    }
  }
  if (ok) FUZZ_CHECK(category == VARN_DATA || category == VARN_END);
  return ok != 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  core::OnApplicationThread();
  g_input = new MemoryInput();
  g_output = new MemoryInput();
  g_channel = new StreamChannel();
  core::Setup& setup = core::MutableSetup();
  std::strcpy(setup.program_name, "receiver");
  std::strcpy(setup.host_name, "lab7");
  std::strcpy(setup.pid_text, "4312");
  std::strcpy(setup.own_address, kOwnAddress);
  setup.quonin_fd = g_input->fd();
  setup.quonout_fd = g_output->fd();
  setup.error_fd = 2;
  VarnChanType = VARN_CHAN_PIPE;
  // The channel takes the place the debug channel would take.
  transport::RegisterDebugChannel(g_channel);
  transport::ChooseChannel(true);
  // The layers above the transport, as varn_init wires them. The library
  // is not initialised, so a KILL's shut-down returns instead of ending
  // the process.
  transport::UpperLayer upper;
  upper.enable = varnP_enable_server_protocal;
  upper.disable = varnP_disable_server_protocal;
  upper.notify = varnP_notify;
  upper.disconnect = varnP_disconnect_process;
  upper.shut_down = varn_deinit;
  transport::RegisterUpperLayer(upper);
  core::SetSourceNamer(varn::process::NameFromProcessList);
  varnP_set_callback(OnMessage);
  FUZZ_CHECK(varn_queue_init());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  core::OnApplicationThread();
  g_input->Reset(data, size);
  g_channel->Start();
  varn_send_init();
  varn_recv_init();
  VarnErrorNo = 0;
  OpenRows();

  // Messages as a main loop takes them, and the stream whenever one is
  // open. Every step takes a message or a piece of the stream; the bound
  // only guards against a loop that takes nothing.
  bool read_stream = true;
  const unsigned steps = 8 * static_cast<unsigned>(size) + 64;
  for (unsigned step = 0; step < steps && g_channel->losses() < 2; ++step) {
    int h = read_stream ? StreamRow() : -1;
    if (h >= 0) {
      read_stream = ReadStreamPiece(h, step);
    } else {
      varn_recv_read_and_parse_message(static_cast<int>(step & 1));
      read_stream = true;
    }
  }
  FUZZ_CHECK(g_channel->losses() >= 2);
  // What is left in the stream buffer reads as records, then the end.
  for (int h = StreamRow(), n = 0; h >= 0 && n < static_cast<int>(size) + 2; ++n) {
    if (!ReadStreamPiece(h, 2)) break;
    if (stream::Unread() == 0 && stream::Source()[0] == '\0') break;
  }
  CheckOutput();

  // Nothing of this input stays for the next one.
  ResetPacketReader();
  varn::fuzz::ResetLibraryState();
  return 0;
}
