// The environment's shared tool programs: the dataset server "dravodss",
// the display server "dravodds", the data-flow tool "velordftool" and the
// instrument server "dravoinstrio". This one program is built under each
// name (TOOL_NAME); the launchers of the library find or start them, and
// they answer status queries and a small set of commands (CMD payloads):
//
//   who                 DONE "NAME ADDRESS": which program and instance
//                       answers
//   args                DONE with the arguments it was started with,
//                       separated by single blanks ("" for none)
//   report STATUS       DONE "reporting STATUS"; from then on status
//                       queries are answered with STATUS (idle, busy or
//                       dead), so that a client's handling of a tool that
//                       reports itself dead can be tried out
//   quit                DONE "bye", then the program ends
//   help                DONE with this list
//
// Anything else is answered with ERROR "unknown command: ..." and the list.
// A status set by "report" holds from the moment after its DONE. Every
// command is written to standard output (under the hub: the hub's log) as
// "NAME: CMD from ADDRESS: TEXT".
//
// The program ends when it is killed, after "quit", or when the process
// that started it ends.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/tool_text.h"
#include "varn.h"

#ifndef TOOL_NAME
#error "TOOL_NAME names the program"
#endif

namespace {

constexpr const char* kName = TOOL_NAME;
constexpr const char* kUsage = "commands: who | args | report idle|busy|dead | quit | help";

varnHandle g_parent = -1;
std::string g_args;
int g_reported = VARN_STATUS_IDLE;
std::string g_address;

void Answer(int h, int category, const std::string& text) {
  if (!varn_send_msg(h, category, text.c_str(), 0)) {
    std::fprintf(stderr, "%s: cannot answer: %s\n", kName,
                 varn_get_error_message(varn_get_error_no()));
  }
}

void OnCommand(int h, const std::string& command) {
  const char* from = VarnMessage[h].address != nullptr ? VarnMessage[h].address : "?";
  std::printf("%s: CMD from %s: %s\n", kName, from, varn::tools::Escape(command).c_str());
  std::fflush(stdout);
  if (command == "who") {
    Answer(h, VARN_DONE, std::string(kName) + " " + g_address);
  } else if (command == "args") {
    Answer(h, VARN_DONE, g_args);
  } else if (command == "report idle" || command == "report busy" || command == "report dead") {
    std::string word = command.substr(7);
    g_reported = word == "idle"   ? VARN_STATUS_IDLE
                 : word == "busy" ? VARN_STATUS_BUSY
                                  : VARN_STATUS_DEAD;
    Answer(h, VARN_DONE, "reporting " + word);
  } else if (command == "quit") {
    Answer(h, VARN_DONE, "bye");
    varn_deinit();
  } else if (command == "help") {
    Answer(h, VARN_DONE, kUsage);
  } else {
    Answer(h, VARN_ERROR, "unknown command: " + command + "; " + kUsage);
  }
}

void OnMessage(int h) {
  if (h < 0) return;  // the hub
  // A plain array, not a lazily built one: an INTR or KILL runs this callback
  // on the input thread while the application's thread is held, perhaps in
  // the middle of a first-use initialisation it would then wait for.
  static char buffer[1 << 20];
  uint32_t category = 0;
  uint32_t length = 0;
  if (!varn_recv_msg_len(h, &category, buffer, &length)) return;
  if (category == VARN_SRVR_ERR && h == g_parent) {
    std::printf("%s: the process that started it ended; ending too\n", kName);
    std::fflush(stdout);
    varn_deinit();
  }
  if (category != VARN_CMD) return;
  OnCommand(h, std::string(buffer, varn::tools::PayloadLength(buffer, length)));
  // The DONE has just reported the process idle; what "report" set holds.
  if (g_reported != VARN_STATUS_IDLE) {
    varn_set_status(static_cast<uint32_t>(g_reported), g_reported == VARN_STATUS_DEAD
                                                           ? "reported dead on request"
                                                           : "reported busy on request");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (!varn_init(&argc, argv, &g_parent)) {
    std::fprintf(stderr, "%s: %s\n", kName, varn_get_error_message(varn_get_error_no()));
    return 1;
  }
  for (int i = 1; i < argc; ++i) {
    if (i > 1) g_args += ' ';
    g_args += argv[i];
  }
  char address[256];
  varn_query_own_address(address);
  g_address = address;
  std::printf("%s %s: ready%s%s\n", kName, address,
              g_args.empty() ? "" : ", arguments: ", g_args.c_str());
  std::fflush(stdout);
  varn_set_callback(OnMessage);
  KOMainLoop();
  return 0;
}
