// A plug-in built apart from the library: it links the plug-in manager
// only, and reaches the library through the interface objects alone. The
// host program loads it and calls varn_test_plugin_run, which starts a
// server, sends it a command, waits for its DONE, and writes, reads and
// seeks a file through the hub, reporting each step as a line.
#include <cstdarg>
#include <cstdio>

#include "plugin_manager.h"
#include "varn_plugin.h"

namespace {

std::FILE* g_report = nullptr;

void Report(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(g_report, format, args);
  va_end(args);
  std::fputc('\n', g_report);
  std::fflush(g_report);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int varn_test_plugin_run(int* argc, char** argv,
                                                                           const char* file,
                                                                           std::FILE* report) {
  g_report = report;
  auto* varn = static_cast<VARNInterface*>(plugin_manager::GetInterface("VARN"));
  auto* files = static_cast<RemoteFileInterface*>(plugin_manager::GetInterface("RemoteFile"));
  Report("objects %d %d unknown %d", varn != nullptr, files != nullptr,
         plugin_manager::GetInterface("NoSuchInterface") != nullptr);
  if (varn == nullptr || files == nullptr) return 1;
  Report("versions %d %d", varn->version(), files->version());
  varnHandle parent = -1;
  Report("init %d", varn->varn_init(argc, argv, &parent));
  Report("reserved %d %d", varn->reserved_16(), varn->reserved_23());

  // A server, a command and its DONE.
  varnHandle server = -1;
  static char error[VARN_STATUS_TEXT_SIZE];
  Report("invoke %d",
         varn->varn_invoke(&server, "sweep_server", nullptr, nullptr, 0, error, nullptr));
  Report("send %d", varn->varn_send_msg(server, VARN_CMD, "corner 2000", 0));
  static char text[VARN_STATUS_TEXT_SIZE];
  uint32_t category = 0, length = 0;
  int waited = varn->varn_wait(server, &category, text, &length, VARN_DONE, 0);
  Report("wait %d done=%d text=%s", waited, category == VARN_DONE, text);

  // A file through the hub: written and read with the file object...
  std::FILE* out = files->fopen(file, "w");
  Report("fopen %d", out != nullptr);
  if (out == nullptr) return 1;
  files->fputs("first line\n", out);
  files->fputs("second line\n", out);
  Report("fclose %d", files->fclose(out));  // 0, as fclose
  std::FILE* in = files->fopen(file, "r");
  char* line = nullptr;
  bool read = files->readline(&line, in);
  Report("readline %d %s", read, read ? line : "");
  read = files->readline(&line, in);
  Report("readline %d %s", read, read ? line : "");
  files->fclose(in);
  // ...and read again, from the middle, with the messaging object.
  in = varn->varn_file_fopen(file, "r", 0);
  Report("seek %d", varn->varn_fseek(in, 11, SEEK_SET, 0));
  char piece[16] = {};
  uint64_t got = varn->varn_fread(in, 1, 6, piece, 0);
  Report("fread %llu %s tell %lld", static_cast<unsigned long long>(got), piece,
         static_cast<long long>(varn->varn_ftell(in, 0)));
  varn->varn_file_fclose(in, 0);

  Report("kill %d", varn->varn_kill(server));
  return 0;
}
