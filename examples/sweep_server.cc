// sweep_server: a small computation server.
//
// It computes the frequency response of a first-order RC low-pass filter
// (corner frequency 10 kHz) over a logarithmic sweep and streams the rows
// back. Commands (CMD payloads):
//
//   sweep START STOP COUNT [DELAY_MS]   rows "f=... gain_db=... phase_deg=..."
//                                       in a BEGIN .. DATA .. END stream, then
//                                       DONE; DELAY_MS paces the rows
//   corner HZ                           sets the corner frequency
//   help                                DONE with the usage text
//
// A data block (BEGIN "points", one frequency in Hz a DATA, END) asks for
// the response at those frequencies: the rows come back in a stream, then
// DONE with the number of points.
//
// A malformed command is answered with ERROR and the reason. While a sweep
// runs the server reports BUSY with "row K of N" to status queries.
//
// Try it alone in debug mode:
//   printf 'CMD sweep 1 10 3\n' | sweep_server -quon_debug
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "varn.h"

namespace {

constexpr const char* kUsage = "commands: sweep START STOP COUNT [DELAY_MS] | corner HZ | help";
double g_corner_hz = 1e4;

bool ParseNumber(const char* text, double* value) {
  if (text == nullptr) return false;
  char* end = nullptr;
  errno = 0;
  *value = std::strtod(text, &end);
  return errno == 0 && end != text && *end == '\0' && std::isfinite(*value);
}

std::vector<std::string> Words(const char* text) {
  std::vector<std::string> words;
  std::string word;
  for (const char* p = text; *p; ++p) {
    if (*p == ' ' || *p == '\t') {
      if (!word.empty()) words.push_back(word);
      word.clear();
    } else {
      word += *p;
    }
  }
  if (!word.empty()) words.push_back(word);
  return words;
}

void Send(int h, int category, const std::string& text) {
  if (!varn_send_msg(h, category, text.c_str(), 0)) {
    std::fprintf(stderr, "sweep_server: send failed: %s\n",
                 varn_get_error_message(varn_get_error_no()));
  }
}

std::string Row(double f) {
  double ratio = f / g_corner_hz;
  double gain_db = -10.0 * std::log10(1.0 + ratio * ratio);
  double phase_deg = -std::atan(ratio) * 180.0 / M_PI;
  char line[160];
  std::snprintf(line, sizeof line, "f=%.6g gain_db=%.4f phase_deg=%.3f", f, gain_db, phase_deg);
  return line;
}

void Sweep(int h, const std::vector<std::string>& w) {
  double start, stop, count, delay = 0;
  if (w.size() < 4 || w.size() > 5 || !ParseNumber(w[1].c_str(), &start) ||
      !ParseNumber(w[2].c_str(), &stop) || !ParseNumber(w[3].c_str(), &count) ||
      (w.size() == 5 && !ParseNumber(w[4].c_str(), &delay))) {
    Send(h, VARN_ERROR, "usage: sweep START STOP COUNT [DELAY_MS]");
    return;
  }
  if (start <= 0 || stop < start || count < 1 || count > 100000 || count != std::floor(count) ||
      delay < 0 || delay > 10000) {
    Send(h, VARN_ERROR,
         "sweep: need 0 < START <= STOP, COUNT a whole number from 1 to 100000, "
         "DELAY_MS from 0 to 10000");
    return;
  }
  int n = static_cast<int>(count);
  char line[160];
  std::snprintf(line, sizeof line, "starting a sweep of %d points", n);
  varn_set_status(VARN_STATUS_BUSY, line);
  std::snprintf(line, sizeof line, "sweep %g Hz .. %g Hz, %d points, corner %g Hz", start, stop, n,
                g_corner_hz);
  if (!varn_send_msg(h, VARN_BEGIN, line, 0)) {
    Send(h, VARN_ERROR,
         std::string("sweep: client refused the stream: ") +
             varn_get_error_message(varn_get_error_no()));
    return;
  }
  for (int i = 0; i < n; ++i) {
    double f = n == 1 ? start : start * std::pow(stop / start, static_cast<double>(i) / (n - 1));
    char progress[64];
    std::snprintf(progress, sizeof progress, "row %d of %d", i + 1, n);
    varn_set_status(VARN_STATUS_BUSY, progress);
    Send(h, VARN_DATA, Row(f));
    if (delay > 0) varn_sleep(0, static_cast<int>(delay));
  }
  std::snprintf(line, sizeof line, "%d rows", n);
  Send(h, VARN_END, line);
  Send(h, VARN_DONE, "ok");
}

// Reads a block of frequencies to its END and answers with their rows.
void Points(int h, char* buffer, std::size_t size) {
  std::vector<double> points;
  std::string bad;
  for (;;) {
    uint32_t category = 0;
    uint32_t length = 0;
    if (!varn_recv_data(h, &category, buffer, static_cast<int64_t>(size), &length)) {
      Send(h, VARN_ERROR, std::string("points: ") + varn_get_error_message(varn_get_error_no()));
      return;
    }
    if (category == VARN_END) break;
    double f;
    if (ParseNumber(buffer, &f) && f > 0) {
      points.push_back(f);
    } else if (bad.empty()) {
      bad = buffer;
    }
  }
  if (!bad.empty() || points.empty()) {
    Send(h, VARN_ERROR, bad.empty() ? "points: no frequencies" : "points: not a frequency: " + bad);
    return;
  }
  std::string title = std::to_string(points.size()) + " points";
  if (!varn_send_msg(h, VARN_BEGIN, title.c_str(), 0)) return;
  for (double f : points) Send(h, VARN_DATA, Row(f));
  Send(h, VARN_END, title);
  Send(h, VARN_DONE, title);
}

void OnMessage(int h) {
  if (h < 0) return;  // the hub itself
  // A plain array, not a lazily built one: an INTR or KILL runs this callback
  // on the input thread while the application's thread is held, perhaps in
  // the middle of a first-use initialisation it would then wait for.
  static char buffer[1 << 20];
  uint32_t category = 0;
  uint32_t length = 0;
  if (!varn_recv_msg_len(h, &category, buffer, &length)) return;
  if (category == VARN_BEGIN) {
    if (std::strcmp(buffer, "points") == 0) {
      Points(h, buffer, sizeof buffer);
    } else {
      Send(h, VARN_ERROR, std::string("unknown block: ") + buffer + "; blocks: points");
    }
    return;
  }
  if (category != VARN_CMD) return;
  std::vector<std::string> w = Words(buffer);
  if (w.empty()) {
    Send(h, VARN_ERROR, std::string("empty command; ") + kUsage);
  } else if (w[0] == "sweep") {
    Sweep(h, w);
  } else if (w[0] == "corner") {
    double hz;
    if (w.size() != 2 || !ParseNumber(w[1].c_str(), &hz) || hz <= 0) {
      Send(h, VARN_ERROR, "usage: corner HZ (a positive number)");
    } else {
      g_corner_hz = hz;
      Send(h, VARN_DONE, "corner set");
    }
  } else if (w[0] == "help") {
    Send(h, VARN_DONE, kUsage);
  } else {
    Send(h, VARN_ERROR, "unknown command: " + w[0] + "; " + kUsage);
  }
}

}  // namespace

int main(int argc, char** argv) {
  varnHandle parent = -1;
  if (!varn_init(&argc, argv, &parent)) {
    std::fprintf(stderr, "sweep_server: %s\n", varn_get_error_message(varn_get_error_no()));
    return 1;
  }
  varn_set_callback(OnMessage);
  KOMainLoop();
  return 0;
}
