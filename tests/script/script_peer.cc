// A server that scripts drive in the tests. Modes (first argument):
//   serve   answers commands (below) and reports IDLE
//   busy    the same, but reports BUSY with "warming up" to every status
//           query, so that it never becomes idle
// It ends when the process that started it ends.
// Commands:
//   ping        DONE "pong"
//   fail TEXT   ERROR TEXT
//   args        DONE with the arguments it was started with (after its
//               own program name), joined by blanks
//   die         ends at once with status 3, without an answer
//   talk        talks back to the script: a command "question" (and notes
//               the answer), a block "block" of the pieces a, b, c ended by
//               "end" (and notes the block's DONE text), a loose DATA
//               "loose", then DONE "talked cmd=ANSWER block=TEXT"
//   stream      a stream BEGIN "rows", DATA r1, r2, END "2 rows", then DONE
//               "streamed"
//   start NAME  starts the program NAME, then DONE "started" (ERROR with the
//               reason when it cannot); it is killed when this one ends
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "varn.h"

namespace {

std::string g_arguments;
varnHandle g_parent = -1;
std::vector<varnHandle> g_started;  // programs it started; they end with it

void Send(int h, int category, const std::string& text) {
  varn_send_msg(h, category, text.c_str(), static_cast<int64_t>(text.size()));
}

// The answer of the script to what we sent it: "DONE:text" or "ERROR:text".
std::string AnswerOf(int h) {
  static char buffer[1 << 20];
  uint32_t category = 0, length = 0;
  if (!varn_wait(h, &category, buffer, &length, VARN_DONE, 0)) return "no answer";
  std::string word = category == VARN_DONE ? "DONE" : category == VARN_ERROR ? "ERROR" : "other";
  return word + ":" + buffer;
}

void Talk(int h) {
  Send(h, VARN_CMD, "question");
  std::string command_answer = AnswerOf(h);
  Send(h, VARN_BEGIN, "block");
  for (const char* piece : {"a", "b", "c"}) Send(h, VARN_DATA, piece);
  Send(h, VARN_END, "end");
  std::string block_answer = AnswerOf(h);
  Send(h, VARN_DATA, "loose");
  Send(h, VARN_DONE, "talked cmd=" + command_answer + " block=" + block_answer);
}

void OnMessage(int h) {
  if (h < 0) return;
  // A plain array, not a lazily built one: an INTR or KILL runs this callback
  // on the input thread while the application's thread is held, perhaps in
  // the middle of a first-use initialisation it would then wait for.
  static char buffer[1 << 20];
  uint32_t category = 0, length = 0;
  if (!varn_recv_msg_len(h, &category, buffer, &length)) return;
  // Killed, or the script that started it has ended: it ends, with what it
  // started.
  if (category == VARN_KILL || (category == VARN_SRVR_ERR && h == g_parent)) {
    for (varnHandle started : g_started) varn_kill(started);
    std::exit(0);
  }
  if (category != VARN_CMD) return;
  std::string command = buffer;
  if (command == "ping") {
    Send(h, VARN_DONE, "pong");
  } else if (command.rfind("fail ", 0) == 0) {
    Send(h, VARN_ERROR, command.substr(5));
  } else if (command == "args") {
    Send(h, VARN_DONE, g_arguments);
  } else if (command == "die") {
    std::_Exit(3);
  } else if (command == "talk") {
    Talk(h);
  } else if (command.rfind("start ", 0) == 0) {
    varnHandle started = -1;
    static char refusal[VARN_STATUS_TEXT_SIZE];
    if (varn_invoke(&started, command.substr(6).c_str(), nullptr, nullptr, 0, refusal, nullptr)) {
      g_started.push_back(started);
      Send(h, VARN_DONE, "started");
    } else {
      Send(h, VARN_ERROR, refusal);
    }
  } else if (command == "stream") {
    Send(h, VARN_BEGIN, "rows");
    Send(h, VARN_DATA, "r1");
    Send(h, VARN_DATA, "r2");
    Send(h, VARN_END, "2 rows");
    Send(h, VARN_DONE, "streamed");
  } else {
    Send(h, VARN_ERROR, "unknown command " + command);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Busy before the library answers the first status query.
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "busy") == 0) varn_set_status(VARN_STATUS_BUSY, "warming up");
  }
  if (!varn_init(&argc, argv, &g_parent)) return 1;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) g_arguments += ' ';
    g_arguments += argv[i];
  }
  varn_set_callback(OnMessage);
  KOMainLoop();
  return 0;
}
