// demo_client: the main job. Run under the hub, it starts two sweep
// servers, gives each a sweep, asks how they are doing while they work,
// reads both result streams, and stops them, saying what it does as it goes.
//
//   quon --path build/examples build/examples/demo_client
#include <cstdio>
#include <cstdlib>
#include <string>

#include "varn.h"

namespace {

[[noreturn]] void Fail(const char* what) {
  std::printf("demo: %s failed: %s\n", what, varn_get_error_message(varn_get_error_no()));
  std::fflush(stdout);
  varn_deinit();
  std::exit(1);
}

varnHandle Start(const char* label) {
  varnHandle h = -1;
  static char refusal[VARN_STATUS_TEXT_SIZE];
  if (!varn_invoke(&h, "sweep_server", nullptr, nullptr, 0, refusal, nullptr)) {
    std::printf("demo: the hub refused to start %s: %s\n", label, refusal);
    Fail("start");
  }
  char *name = nullptr, *address = nullptr;
  varn_query_handle_address(h, &name, &address);
  std::printf("demo: started %s as %s at %s\n", label, name, address);
  return h;
}

void Status(const char* label, varnHandle h) {
  uint32_t status = 0;
  char text[VARN_STATUS_TEXT_SIZE];
  if (!varn_query_status(h, &status, text)) Fail("status query");
  static const char* kWords[] = {"IDLE", "BUSY", "DEAD"};
  std::printf("demo: %s is %s%s%s\n", label, status < 3 ? kWords[status] : "?", text[0] ? ", " : "",
              text);
}

void Expect(const char* label, varnHandle h, uint32_t wanted) {
  uint32_t category = 0, length = 0;
  static char buffer[1 << 20];
  if (!varn_wait(h, &category, buffer, &length, 0, 1)) Fail("wait");
  char word[16] = "?";
  varn_util_int_to_category(static_cast<int>(category), word);
  std::printf("demo: %s says %s %s\n", label, word, buffer);
  if (category != wanted) Fail("protocol");
}

// Reads a whole stream, from its BEGIN to the DONE after its END.
void ReadStream(const char* label, varnHandle h) {
  Expect(label, h, VARN_BEGIN);
  int rows = 0;
  for (;;) {
    uint32_t category = 0, length = 0;
    char buffer[4096];
    if (!varn_recv_data(h, &category, buffer, sizeof buffer, &length)) Fail("read");
    if (category == VARN_END) {
      std::printf("demo: %s ended its stream: %s\n", label, buffer);
      break;
    }
    ++rows;
    std::printf("demo: %s row %d: %s\n", label, rows, buffer);
  }
  Expect(label, h, VARN_DONE);
}

}  // namespace

int main(int argc, char** argv) {
  varnHandle parent = -1;
  if (!varn_init(&argc, argv, &parent)) {
    std::fprintf(stderr, "demo: %s\n", varn_get_error_message(varn_get_error_no()));
    return 1;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  varnHandle a = Start("server A");
  varnHandle b = Start("server B");

  const char* cmd_a = "sweep 1e3 1e6 12 40";
  const char* cmd_b = "sweep 10 1e5 8 60";
  std::printf("demo: asking server A: %s\n", cmd_a);
  if (!varn_send_msg(a, VARN_CMD, cmd_a, 0)) Fail("send to A");
  std::printf("demo: asking server B: %s\n", cmd_b);
  if (!varn_send_msg(b, VARN_CMD, cmd_b, 0)) Fail("send to B");

  // Both work now; each answers with its progress while it computes.
  Status("server A", a);
  Status("server B", b);
  ReadStream("server A", a);
  ReadStream("server B", b);
  Status("server A", a);
  Status("server B", b);

  std::printf("demo: a malformed command to server A\n");
  if (!varn_send_msg(a, VARN_CMD, "sweep backwards", 0)) Fail("send to A");
  Expect("server A", a, VARN_ERROR);

  std::printf("demo: stopping both servers\n");
  if (!varn_kill(a) || !varn_kill(b)) Fail("kill");
  std::printf("demo: done\n");
  varn_deinit();
  return 0;
}
