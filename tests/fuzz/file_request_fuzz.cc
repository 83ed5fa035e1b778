// The hub's remote file requests (FOPEN ... FTELL) from one client.
//
// The input is the client's byte stream. The hub's framer cuts it into
// packets and each file request goes to one client's table of open files,
// as the hub hands them over, with the payload as received (padding
// included). An input that holds no packet is read as lines of the form
// "WORD payload", so that mutations which break the length field still
// reach the request parsers.
//
// The files root is a scratch directory with a text file, a binary file in
// a subdirectory, a FIFO, and links that lead outside; beside it lies a
// directory with a file whose content is a marker. Checks: every request
// gets one answer, FACK or FNAK with a reason; an answer fits a packet; the
// marker is never read; nothing outside the root is created, changed or
// removed. Every input meets the root as first laid out.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <string_view>

#include "quon/file_service.h"
#include "quon/packet_framer.h"
#include "tests/fuzz/fuzz_support.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"
#include "varn_codes.h"

namespace {

namespace fs = std::filesystem;
namespace wire = varn::wire;
using varn::quon::FileReply;
using varn::quon::OpenFiles;
using varn::quon::Packet;
using varn::quon::PacketFramer;

constexpr std::string_view kMarker = "outside-marker-5e1f";

struct Scratch {
  fs::path base;
  fs::path root;
  fs::path outside;
  varn::platform::FilesRoot files_root;
};
Scratch* g_scratch = nullptr;
// Whether a request may have changed the root since it was laid out.
bool g_root_changed = true;

void WriteFile(const fs::path& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The root's content for an input; laid out again only after an input
// whose requests may have changed it (see g_root_changed).
void LayOutRoot() {
  const fs::path& root = g_scratch->root;
  for (const auto& entry : fs::directory_iterator(root)) fs::remove_all(entry.path());
  WriteFile(root / "a.txt", "hello\nworld\n");
  fs::create_directory(root / "sub");
  WriteFile(root / "sub" / "b.bin", std::string("\0\1\2\3 binary\0", 12));
  FUZZ_CHECK(mkfifo((root / "fifo").c_str(), 0600) == 0);
  fs::create_symlink("../outside/secret", root / "up_link");
  fs::create_symlink(g_scratch->outside / "secret", root / "abs_link");
  fs::create_symlink("sub/b.bin", root / "inner_link");
}

void CleanUp() {
  if (g_scratch != nullptr) fs::remove_all(g_scratch->base);
}

// Nothing beside the root was touched.
void CheckOutsideUntouched() {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(g_scratch->base)) {
    names.insert(entry.path().filename());
  }
  FUZZ_CHECK((names == std::set<std::string>{"root", "outside"}));
  names.clear();
  for (const auto& entry : fs::directory_iterator(g_scratch->outside)) {
    names.insert(entry.path().filename());
  }
  FUZZ_CHECK(names == std::set<std::string>{"secret"});
  FUZZ_CHECK(ReadFile(g_scratch->outside / "secret") == kMarker);
}

bool IsNumber(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// Whether a request that succeeded may have changed the root: a write, an
// unlink, or an open that creates or truncates.
bool Changes(int category, std::string_view payload) {
  if (category == VARN_FWRITE || category == VARN_FUNLINK) return true;
  if (category != VARN_FOPEN) return false;
  std::string_view name, mode, type;
  return !wire::ParseOpenRequest(wire::WithoutPadding(payload), &name, &mode, &type) ||
         mode != "READ";
}

void Handle(OpenFiles* files, int category, std::string_view payload) {
  FileReply reply = files->Handle(category, payload);
  FUZZ_CHECK(reply.category == VARN_FACK || reply.category == VARN_FNAK);
  if (reply.category == VARN_FACK && Changes(category, payload)) g_root_changed = true;
  FUZZ_CHECK(files->open_count() <= OpenFiles::kMaxOpenFiles);
  if (reply.category == VARN_FNAK) {
    FUZZ_CHECK(!reply.payload.empty());
    return;
  }
  // The answer goes back in one packet from the hub to the client.
  FUZZ_CHECK(
      wire::PacketSize("4312@lab7", wire::kHubAddress, reply.category, reply.payload.size()) != 0);
  FUZZ_CHECK(reply.payload.find(kMarker) == std::string::npos);
  switch (category) {
    case VARN_FOPEN:
    case VARN_FTELL:
    case VARN_FSEEK:
    case VARN_FWRITE:
    case VARN_FSTAT:
      FUZZ_CHECK(IsNumber(reply.payload));
      break;
    case VARN_FREAD:
      FUZZ_CHECK(!reply.payload.empty() && reply.payload.size() <= OpenFiles::kMaxRead);
      break;
    case VARN_FEOF:
      FUZZ_CHECK(reply.payload == "0" || reply.payload == "1");
      break;
    default:
      FUZZ_CHECK(reply.payload.empty());
  }
}

// Input without packets: one request a line, "WORD payload".
void HandleLines(OpenFiles* files, std::string_view text) {
  while (!text.empty()) {
    std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    std::size_t blank = line.find(' ');
    int category = 0;
    if (!wire::CategoryFromWord(line.substr(0, blank), &category) ||
        !wire::IsFileRequest(category)) {
      continue;
    }
    Handle(files, category,
           blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_scratch = new Scratch;
  // In memory where there is a tmpfs: the root is laid out again often.
  std::string pattern = fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
  pattern += "/varn-fuzz-files-XXXXXX";
  FUZZ_CHECK(mkdtemp(pattern.data()) != nullptr);
  g_scratch->base = pattern;
  g_scratch->root = g_scratch->base / "root";
  g_scratch->outside = g_scratch->base / "outside";
  fs::create_directory(g_scratch->root);
  fs::create_directory(g_scratch->outside);
  WriteFile(g_scratch->outside / "secret", kMarker);
  int error = 0;
  FUZZ_CHECK(g_scratch->files_root.Open(g_scratch->root, &error));
  std::atexit(CleanUp);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (g_root_changed) LayOutRoot();
  g_root_changed = false;
  {
    OpenFiles files(g_scratch->files_root);
    PacketFramer framer;
    if (size > 0) {
      std::memcpy(framer.Reserve(size), data, size);
      framer.Commit(size);
    }
    bool any = false;
    for (;;) {
      Packet p;
      std::string reason;
      PacketFramer::Result r = framer.Next(&p, &reason);
      if (r == PacketFramer::Result::kNeedMore) break;
      if (r != PacketFramer::Result::kPacket) continue;
      any = true;
      if (wire::IsFileRequest(p.category)) Handle(&files, p.category, p.raw_payload());
    }
    if (!any) HandleLines(&files, std::string_view(reinterpret_cast<const char*>(data), size));
  }
  CheckOutsideUntouched();
  return 0;
}
