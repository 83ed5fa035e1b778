// service_demo: status lines and help requests as a user sees them. Run
// under the hub with the service programs on its path:
//
//   quon --path build/tools build/examples/service_demo
//
// It opens a status session and reports the progress of a small job in it
// (the status server, dravosess, shows every line in the hub's log), then
// asks the help server, dravohelp, for a few topics and says what came
// back. The servers end when this program ends.
#include <cstdio>
#include <string>

#include "varn.h"

namespace {

void Say(const char* text) { std::printf("service_demo: %s\n", text); }

void Help(const char* topic, const char* book) {
  int busy = 0;
  char message[VARN_HELP_MESSAGE_SIZE] = "";
  int r = varn_help_open(topic, book, &busy, message);
  std::printf("service_demo: help on \"%s\" in %s: %s%s%s\n", topic, book ? book : "any book",
              r ? "shown" : "not shown", message[0] ? ": " : "", message);
}

}  // namespace

int main(int argc, char** argv) {
  varnHandle parent = -1;
  if (!varn_init(&argc, argv, &parent)) {
    std::fprintf(stderr, "service_demo: %s\n", varn_get_error_message(varn_get_error_no()));
    return 1;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  int session = varn_status_open_session();
  if (session == 0) {
    Say("no status server: lines go to the error stream instead");
  } else {
    std::printf("service_demo: status session %d opened\n", session);
  }
  varn_status_display_de(session, VARN_STATUS_INFO, "Sweep of the filter", "3 stages", "");
  for (int stage = 1; stage <= 3; ++stage) {
    std::string done = std::to_string(stage * 100 / 3) + "%";
    std::string what = "stage " + std::to_string(stage) + " of 3";
    varn_status_display_de(session, VARN_STATUS_PROGRESS, what.c_str(), done.c_str(), nullptr);
  }
  varn_status_display_de(session, VARN_STATUS_WARNING, "Gain below -40 dB above 1 MHz",
                         "results/sweep.txt", "line 12");
  varn_status_show_session(session);
  varn_status_map_to_front(1);
  Say("status lines sent");

  if (!varn_help_invoke()) {
    std::printf("service_demo: help: %s\n", varn_help_get_error_message());
  } else {
    Help("intro", "Manuals");
    Help("sessions", nullptr);
    Help("nosuch", "guide");
    varn_help_open_url("https://example.org/varn");
    Say("web page requested");
  }
  Say("done");
  varn_deinit();
  return 0;
}
