// A program linked to libvarn that the remote file tests start, under the
// real hub or a scripted one. It runs one scenario (first argument after
// the library's options) and writes what it sees, one line per event, to
// the file given with "-reportfile PATH" (or the descriptor "-report N").
#include <fcntl.h>
#include <unistd.h>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/peer_report.h"
#include "varn.h"

namespace {

using varn::test_support::g_report;
using varn::test_support::Report;
using varn::test_support::Word;

constexpr int kRead = 1, kWrite = 2;
constexpr int kText = 1, kBinary = 2;

// Bytes 0..255 over and over, NULs included.
std::string Pattern(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7 + i / 256) & 0xff);
  return data;
}

bool WriteWhole(const char* name, const std::string& data) {
  int h = -1;
  if (!varn_quon_fopen(&h, name, kWrite, kBinary)) return false;
  bool ok = varn_quon_fwrite(data.data(), 1, data.size(), h) == data.size();
  return varn_quon_fclose(h) && ok;
}

// Reads a whole file with requests of `chunk` bytes.
std::string ReadWhole(const char* name, std::size_t chunk, int* error) {
  int h = -1;
  std::string data;
  *error = 0;
  if (!varn_quon_fopen(&h, name, kRead, kBinary)) {
    *error = VarnErrorNo;
    return data;
  }
  std::vector<char> buffer(chunk);
  for (;;) {
    uint64_t n = varn_quon_fread(buffer.data(), 1, chunk, h);
    if (n == 0) break;
    data.append(buffer.data(), n);
  }
  *error = VarnErrorNo;
  varn_quon_fclose(h);
  return data;
}

void Requests() {
  // A large binary file, byte-exact through several packets both ways.
  std::string big = Pattern(1 << 20);
  Report("big write %d", WriteWhole("big.bin", big) ? 1 : 0);
  int read_error = 0;
  std::string back = ReadWhole("big.bin", 100000, &read_error);
  Report("big read %zu same=%d end=%d", back.size(), back == big ? 1 : 0, read_error);
  // Files that end in NUL bytes read back exactly, whatever their size.
  for (std::size_t size : {1, 2, 3, 4, 5, 6, 7, 8, 30207, 30208, 30209}) {
    std::string data(size, '\0');
    for (std::size_t i = 0; i + 2 < size; ++i) data[i] = static_cast<char>('a' + i % 26);
    WriteWhole("nul.bin", data);
    std::string read = ReadWhole("nul.bin", 100000, &read_error);
    if (read != data) Report("nul %zu read %zu", size, read.size());
  }
  Report("nul files done");

  // Positions.
  int h = -1;
  Report("open %d", varn_quon_fopen(&h, "big.bin", kRead, kBinary));
  int64_t pos = -1;
  int r = varn_quon_fseek(h, 10, 0, &pos);
  Report("seek set %d %lld", r, static_cast<long long>(pos));
  r = varn_quon_fseek(h, 5, 1, &pos);
  Report("seek cur %d %lld", r, static_cast<long long>(pos));
  r = varn_quon_fseek(h, -4, 2, &pos);
  int64_t tell = varn_quon_ftell(h);
  int eof = varn_quon_feof(h);
  Report("seek end %d %lld tell %lld eof %d", r, static_cast<long long>(pos),
         static_cast<long long>(tell), eof);
  char tail[16];
  uint64_t n = varn_quon_fread(tail, 1, sizeof tail, h);
  Report("tail %llu same=%d", static_cast<unsigned long long>(n),
         std::memcmp(tail, big.data() + big.size() - 4, 4) == 0 ? 1 : 0);
  n = varn_quon_fread(tail, 1, sizeof tail, h);
  int error = VarnErrorNo;
  eof = varn_quon_feof(h);
  Report("after end %llu err=%d eof %d", static_cast<unsigned long long>(n), error, eof);
  r = varn_quon_frewind(h);
  Report("rewind %d tell %lld", r, static_cast<long long>(varn_quon_ftell(h)));
  Report("close %d", varn_quon_fclose(h));

  // Kinds, and removing.
  int kind = -1;
  r = varn_quon_fstat("big.bin", &kind);
  Report("stat file %d %d", r, kind);
  r = varn_quon_fstat(".", &kind);
  Report("stat folder %d %d", r, kind);
  r = varn_quon_fstat("missing", &kind);
  Report("stat missing %d err=%d", r, VarnErrorNo);
  Report("unlink %d", varn_quon_funlink("big.bin"));
  r = varn_quon_fstat("big.bin", &kind);
  Report("stat gone %d err=%d", r, VarnErrorNo);

  // Refusals.
  r = varn_quon_fopen(&h, "missing", kRead, kText);
  Report("open missing %d err=%d", r, VarnErrorNo);
  r = varn_quon_fopen(&h, "../outside", kWrite, kText);
  Report("open outside %d err=%d", r, VarnErrorNo);
  r = varn_quon_fopen(&h, "x", 5, 3);
  Report("open bad type %d err=%d", r, VarnErrorNo);
  r = varn_quon_fopen(&h, "x", 5, kText);
  Report("open bad mode %d err=%d", r, VarnErrorNo);
  r = varn_quon_fclose(29);
  Report("close free %d err=%d", r, VarnErrorNo);
  n = varn_quon_fread(tail, 1, 4, 29);
  Report("read free %llu err=%d", static_cast<unsigned long long>(n), VarnErrorNo);
  r = varn_quon_fopen(&h, "w.txt", kWrite, kText);
  n = varn_quon_fread(tail, 1, 4, h);
  Report("read writer %llu err=%d", static_cast<unsigned long long>(n), VarnErrorNo);
  varn_quon_fclose(h);
  r = varn_quon_funlink("missing");
  Report("unlink missing %d err=%d", r, VarnErrorNo);
}

// The wrappers and line calls, on a remote stream when the process runs
// with a socket, on a local file otherwise.
void Wrappers() {
  FILE* f = varn_file_fopen("text.txt", "w", 0);
  Report("fopen %d", f != nullptr ? 1 : 0);
  std::string exact(1024, 'x');
  std::string longer(3000, 'y');
  varn_fprintf(f, 0, "first %d\n", 1);
  varn_fputs(f, "second\r\n", 0);
  varn_fprintf(f, 0, "%s\n", exact.c_str());
  varn_fprintf(f, 0, "%s\n", longer.c_str());
  varn_fputs(f,
             "\x1a"
             "after the end\n",
             0);
  Report("fclose %d", varn_file_fclose(f, 0));

  f = varn_file_fopen("text.txt", "r", 0);
  char line[VARN_LINE_SIZE];
  std::vector<std::string> lines;
  while (varn_readline(f, line, 0)) lines.push_back(line);
  Report("readline %zu: [%s] [%s] %zu %zu %zu %zu", lines.size(), lines[0].c_str(),
         lines[1].c_str(), lines[2].size(), lines[3].size(), lines[4].size(), lines[5].size());
  Report("readline after the end %d", varn_readline(f, line, 0));
  varn_rewind(f, 0);
  char* p = nullptr;
  lines.clear();
  while (varn_readlineP(f, &p, 0)) lines.push_back(p);
  Report("readlineP %zu: %zu %zu", lines.size(), lines[2].size(), lines[3].size());
  varn_rewind(f, 0);
  char buffer[16];
  const char* got_line = varn_fgets(f, buffer, sizeof buffer, 0);
  Report("fgets %zu", got_line != nullptr ? std::strlen(got_line) : 0);
  Report("ftell %lld", static_cast<long long>(varn_ftell(f, 0)));
  varn_file_fclose(f, 0);

  // A last line without its line feed.
  f = varn_file_fopen("last.txt", "w", 0);
  varn_fputs(f, "one\nlast", 0);
  varn_file_fclose(f, 0);
  f = varn_file_fopen("last.txt", "r", 0);
  int n1 = varn_readlineP(f, &p, 0);
  std::string one = p;
  int n2 = varn_readlineP(f, &p, 0);
  std::string last = n2 ? p : "";
  Report("last %d %s %d %s %d", n1, one.c_str(), n2, last.c_str(), varn_readlineP(f, &p, 0));
  varn_file_fclose(f, 0);
  uint32_t kind = 0;
  int found = varn_stat("last.txt", &kind, 0);
  Report("stat %d %u", found, kind);
  Report("unlink %d", varn_unlink("last.txt", 0));
  Report("stat gone %d", varn_stat("last.txt", &kind, 0));
  // Numbers through the scanner.
  f = varn_file_fopen("numbers.txt", "w", 0);
  varn_fputs(f, "12 34 2.5e1 word\n", 0);
  varn_file_fclose(f, 0);
  f = varn_file_fopen("numbers.txt", "r", 0);
  int a = 0, b = 0;
  double d = 0;
  char word[40];
  int got = varn_fscanf(f, 0, "%d,%d %lf %s", &a, &b, &d, word);
  Report("scan %d %d %d %g %s", got, a, b, d, word);
  varn_file_fclose(f, 0);
}

// A second client with a file of its own open while its parent has one.
void Two() {
  int h = -1;
  Report("open A %d", varn_quon_fopen(&h, "a.txt", kWrite, kText));
  varnHandle helper = -1;
  char refusal[VARN_STATUS_TEXT_SIZE];
  Report("helper %d",
         varn_invoke(&helper, "varn_test_file_peer", nullptr, "helper", 0, refusal, nullptr));
  uint32_t category = 0, length = 0;
  char text[256] = "";
  varn_wait(helper, &category, text, &length, 0, 1);
  Report("helper says %s", text);
  Report("write A %llu", static_cast<unsigned long long>(varn_quon_fwrite("from A", 1, 6, h)));
  Report("close A %d", varn_quon_fclose(h));
  varn_send_msg(helper, VARN_CMD, "close", 0);
  varn_wait(helper, &category, text, &length, 0, 1);
  Report("helper closed %s", text);
  varn_kill(helper);
}

varnHandle g_parent = -1;
int g_helper_file = -1;

void HelperCallback(int h) {
  if (h < 0 || VarnMessage[h].last_category != VARN_CMD) return;
  int r = varn_quon_fclose(g_helper_file);
  varn_send_msg(h, VARN_DONE, r ? "closed" : "failed", 0);
}

void Helper() {
  varn_quon_fopen(&g_helper_file, "b.txt", kWrite, kText);
  varn_quon_fwrite("from B", 1, 6, g_helper_file);
  varn_set_callback(HelperCallback);
  varn_send_msg(g_parent, VARN_DONE, g_helper_file >= 0 ? "opened" : "failed", 0);
  KOMainLoop();
}

// Under a scripted hub: an open whose answer never comes.
void Waiting() {
  int h = -1;
  Report("ready");
  int r = varn_quon_fopen(&h, "x.txt", kWrite, kText);
  Report("open %d err=%d", r, VarnErrorNo);
  r = varn_quon_fopen(&h, "x.txt", kWrite, kText);
  Report("again %d err=%d", r, VarnErrorNo);
}

// Under a scripted hub: reads whose answers the hub shapes.
void Shaped() {
  int h = -1;
  Report("open %d", varn_quon_fopen(&h, "s.bin", kRead, kBinary));
  char buffer[64];
  std::memset(buffer, '#', sizeof buffer);
  uint64_t n = varn_quon_fread(buffer, 1, 10, h);
  Report("more than asked %llu [%.*s]", static_cast<unsigned long long>(n), 12, buffer);
  n = varn_quon_fread(buffer, 1, 10, h);
  Report("short %llu", static_cast<unsigned long long>(n));
}

}  // namespace

int main(int argc, char** argv) {
  varnHandle parent = -1;
  int ok = varn_init(&argc, argv, &parent);
  g_parent = parent;
  std::string mode;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-report") == 0 && i + 1 < argc) {
      g_report = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "-reportfile") == 0 && i + 1 < argc) {
      g_report = open(argv[++i], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    } else if (mode.empty() && argv[i][0] != '-') {
      mode = argv[i];
    }
  }
  if (!ok) {
    Report("init failed err=%d", VarnErrorNo);
    return 3;
  }
  Report("init chan=%d", varn_chan_type());
  if (mode == "requests") Requests();
  if (mode == "wrappers") Wrappers();
  if (mode == "two") Two();
  if (mode == "helper") Helper();
  if (mode == "waiting") Waiting();
  if (mode == "shaped") Shaped();
  varn_deinit();
  return 0;
}
