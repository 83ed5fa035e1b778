// quonctl: a look into a running hub through its control endpoint.
//
//   quonctl [--control PATH] ps
//   quonctl [--control PATH] watch [--count N]
//   quonctl [--control PATH] trace [--category WORD]... [--count N] [ADDRESS...]
//
// Without --control the socket is $QUON_CONTROL, or else the one hub
// socket (quon-PID.ctl) in $XDG_RUNTIME_DIR or /tmp that answers. The
// requests and answers are the text lines described in docs/quon.md.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/io.h"
#include "platform/spawn.h"
#include "platform/system.h"
#include "platform/unix_socket.h"

namespace {

namespace platform = varn::platform;

const char kUsage[] =
    "usage: quonctl [--control PATH] ps\n"
    "       quonctl [--control PATH] watch [--count N]\n"
    "       quonctl [--control PATH] trace [--category WORD]... [--count N] [ADDRESS...]\n"
    "\n"
    "  ps      list the hub's processes once\n"
    "  watch   list them again every second (until interrupted, or N times)\n"
    "  trace   show the packets the hub relays, of the given categories and\n"
    "          from or to the given addresses (all when none are given),\n"
    "          until interrupted or N packets were shown\n"
    "  --control PATH  the hub's control socket (default: $QUON_CONTROL, or\n"
    "                  the one hub socket in $XDG_RUNTIME_DIR or /tmp)\n";

[[noreturn]] void Fail(const std::string& text, int code = 1) {
  std::fprintf(stderr, "quonctl: %s\n", text.c_str());
  std::exit(code);
}

std::vector<std::string> SplitTabs(std::string_view line) {
  std::vector<std::string> fields;
  for (;;) {
    std::size_t tab = line.find('\t');
    fields.emplace_back(line.substr(0, tab));
    if (tab == std::string_view::npos) return fields;
    line.remove_prefix(tab + 1);
  }
}

// Lines from the control socket, blocking.
class LineSource {
 public:
  explicit LineSource(int fd) : fd_(fd) {}
  // False at the end of the connection.
  bool Next(std::string* line) {
    for (;;) {
      std::size_t end = buffer_.find('\n');
      if (end != std::string::npos) {
        line->assign(buffer_, 0, end);
        buffer_.erase(0, end + 1);
        return true;
      }
      char buf[8192];
      long n = platform::ReadSome(fd_, buf, sizeof buf);
      if (n <= 0) return false;
      buffer_.append(buf, static_cast<std::size_t>(n));
    }
  }

 private:
  int fd_;
  std::string buffer_;
};

std::string DefaultDirectory() {
  const char* dir = platform::GetEnv("XDG_RUNTIME_DIR");
  return dir != nullptr && dir[0] == '/' ? dir : "/tmp";
}

// The hub sockets in the default directory that accept a connection.
int FindHub(std::string* path) {
  std::vector<std::string> live;
  int fd = -1;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(DefaultDirectory(), ec)) {
    std::string name = entry.path().filename().string();
    if (name.rfind("quon-", 0) != 0 || name.size() < 10 ||
        name.compare(name.size() - 4, 4, ".ctl") != 0) {
      continue;
    }
    int error = 0;
    int candidate = platform::ConnectUnixSocket(entry.path().string(), &error);
    if (candidate < 0) continue;
    live.push_back(entry.path().string());
    if (fd >= 0) platform::Close(fd);
    fd = candidate;
  }
  if (live.empty()) Fail("no running hub found in " + DefaultDirectory() + "; give --control PATH");
  if (live.size() > 1) {
    std::string list;
    for (const std::string& p : live) list += "\n  " + p;
    Fail("several hubs are running; choose one with --control:" + list);
  }
  *path = live[0];
  return fd;
}

int Connect(std::string* path) {
  if (path->empty()) {
    const char* env = platform::GetEnv("QUON_CONTROL");
    if (env == nullptr || env[0] == '\0') return FindHub(path);
    *path = env;
  }
  int error = 0;
  int fd = platform::ConnectUnixSocket(*path, &error);
  if (fd < 0) Fail("cannot connect to " + *path + ": " + platform::ErrorText(error));
  return fd;
}

void Send(int fd, const std::string& request) {
  std::string line = request + "\n";
  if (!platform::WriteAll(fd, line.data(), line.size())) Fail("the hub does not listen");
}

std::string WaitText(const std::string& ms) {
  if (ms == "-" || ms.empty()) return "-";
  long long value = std::atoll(ms.c_str());
  char buf[32];
  if (value < 1000) {
    std::snprintf(buf, sizeof buf, "%lldms", value);
  } else {
    std::snprintf(buf, sizeof buf, "%.1fs", static_cast<double>(value) / 1000.0);
  }
  return buf;
}

std::string CycleText(const std::vector<std::string>& fields) {
  // warning, cycle, then the addresses, each waiting on the next.
  std::string text = "warning: processes wait on each other in a cycle:";
  for (std::size_t i = 2; i < fields.size(); ++i) text += (i == 2 ? " " : " -> ") + fields[i];
  if (fields.size() > 2) text += " -> " + fields[2];
  return text;
}

// Asks for the process table and lays it out in columns. False when the
// hub went away.
bool Table(int fd, LineSource& lines, std::string* screen, std::size_t* count) {
  Send(fd, "ps");
  std::vector<std::vector<std::string>> rows = {
      {"ADDRESS", "PROGRAM", "PARENT", "STATE", "IN", "OUT", "QUEUED", "WAIT", "STATUS"}};
  std::vector<std::string> warnings;
  std::vector<std::string> links;
  std::string line;
  for (;;) {
    if (!lines.Next(&line)) return false;
    if (line == "end") break;
    std::vector<std::string> f = SplitTabs(line);
    if (f[0] == "error") Fail(f.size() > 1 ? f[1] : "error");
    if (f[0] == "process" && f.size() >= 10) {
      rows.push_back({f[1], f[2], f[3], f[4], f[5], f[6], f[7], WaitText(f[8]), f[9]});
    } else if (f[0] == "link" && f.size() >= 3) {
      links.push_back("linked: " + f[1] + " <-> " + f[2] + " (their packets bypass the hub)");
    } else if (f[0] == "warning" && f.size() > 1 && f[1] == "cycle") {
      warnings.push_back(CycleText(f));
    } else if (f[0] == "warning") {
      warnings.push_back("warning: " + (f.size() > 1 ? f[1] : std::string()));
    }
  }
  std::vector<std::size_t> width(rows[0].size(), 0);
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) width[i] = std::max(width[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string out;
    for (std::size_t i = 0; i < row.size(); ++i) {
      bool number = i >= 4 && i <= 7 && &row != &rows[0];
      std::string pad(width[i] - row[i].size(), ' ');
      if (i + 1 == row.size()) {
        out += row[i];
      } else {
        out += number ? pad + row[i] : row[i] + pad;
        out += "  ";
      }
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    *screen += out + "\n";
  }
  for (const std::string& l : links) *screen += l + "\n";
  for (const std::string& w : warnings) *screen += w + "\n";
  *count = rows.size() - 1;
  return true;
}

int Ps(int fd) {
  LineSource lines(fd);
  std::string screen;
  std::size_t count = 0;
  if (!Table(fd, lines, &screen, &count)) Fail("the hub closed the connection");
  std::fputs(screen.c_str(), stdout);
  return 0;
}

std::string Now() {
  std::time_t t = std::time(nullptr);
  char buf[32];
  std::strftime(buf, sizeof buf, "%H:%M:%S", std::localtime(&t));
  return buf;
}

int Watch(int fd, const std::string& path, long count) {
  LineSource lines(fd);
  for (long shown = 0; count <= 0 || shown < count; ++shown) {
    if (shown > 0) platform::SleepMilliseconds(1000);
    std::string screen;
    std::size_t processes = 0;
    if (!Table(fd, lines, &screen, &processes)) {
      std::printf("\nquonctl: the hub has ended\n");
      return 0;
    }
    // Home, clear the screen, then the table.
    std::printf("\x1b[H\x1b[2J%s  %s  %zu process%s\n\n%s", path.c_str(), Now().c_str(), processes,
                processes == 1 ? "" : "es", screen.c_str());
    if (std::fflush(stdout) != 0) return 1;
  }
  return 0;
}

int Trace(int fd, const std::vector<std::string>& filters, long count) {
  std::string request = "trace";
  for (const std::string& f : filters) request += " " + f;
  Send(fd, request);
  LineSource lines(fd);
  std::string line;
  if (!lines.Next(&line)) Fail("the hub closed the connection");
  std::vector<std::string> header = SplitTabs(line);
  if (header[0] == "error") Fail(header.size() > 1 ? header[1] : "error");
  long shown = 0;
  while ((count <= 0 || shown < count) && lines.Next(&line)) {
    std::vector<std::string> f = SplitTabs(line);
    if (f[0] == "packet" && f.size() >= 7) {
      // TIME SOURCE -> DESTINATION WORD SIZE TEXT
      std::printf("%s %s -> %s %s %s%s%s\n", f[1].c_str(), f[2].c_str(), f[3].c_str(), f[4].c_str(),
                  f[5].c_str(), f[6].empty() ? "" : " ", f[6].c_str());
      ++shown;
    } else if (f[0] == "warning" && f.size() > 1 && f[1] == "cycle") {
      std::printf("%s\n", CycleText(f).c_str());
    } else if (f[0] == "dropped" && f.size() > 1) {
      std::printf("(%s lines dropped: this trace did not keep up)\n", f[1].c_str());
    }
    if (std::fflush(stdout) != 0) return 1;  // nobody reads the output any more
  }
  return 0;
}

long Count(const char* text) {
  char* end = nullptr;
  long n = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || n <= 0) Fail("--count needs a positive number", 2);
  return n;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path;
  std::string command;
  std::vector<std::string> filters;
  long count = 0;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    bool has_value = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--control" && has_value) {
      path = argv[++i];
    } else if (arg == "--count" && has_value) {
      count = Count(argv[++i]);
    } else if (arg == "--category" && has_value) {
      filters.push_back(std::string("category=") + argv[++i]);
    } else if (arg.substr(0, 2) == "--") {
      std::fprintf(stderr, "quonctl: unknown option or missing value: %s\n%s", argv[i], kUsage);
      return 2;
    } else if (command.empty()) {
      command = arg;
    } else if (command == "trace") {
      filters.emplace_back(arg);
    } else {
      std::fprintf(stderr, "quonctl: unexpected argument %s\n%s", argv[i], kUsage);
      return 2;
    }
  }
  if (command != "ps" && command != "watch" && command != "trace") {
    std::fputs(kUsage, stderr);
    return 2;
  }
  if (command != "trace" && !filters.empty()) Fail("--category is for trace", 2);
  // A hub that went away is an answer to report, not a signal to die of.
  platform::DefaultBrokenPipeToIgnore();
  int fd = Connect(&path);
  if (command == "ps") return Ps(fd);
  if (command == "watch") return Watch(fd, path, count);
  return Trace(fd, filters, count);
}
