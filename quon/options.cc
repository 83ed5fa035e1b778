#include "quon/options.h"

#include <charconv>
#include <string_view>

namespace varn::quon {

const char kUsage[] =
    "usage: quon [options] PROGRAM [ARGS...]\n"
    "Starts PROGRAM as the first client of a new hub and serves it and every\n"
    "client it starts; exits with PROGRAM's status once the last client ended.\n"
    "\n"
    "  --path DIR          search DIR for programs before PATH (repeatable)\n"
    "  --log FILE          append diagnostics and client error lines to FILE\n"
    "                      (default: standard error)\n"
    "  --trace             log one line per packet\n"
    "  --sockets           give clients a stream socket instead of two pipes\n"
    "  --files-root DIR    serve remote file requests under DIR\n"
    "                      (default: the current directory)\n"
    "  --queue-limit BYTES pause senders to a client with more queued (default 1048576)\n"
    "  --grace MS          wait for clients to end after a signal (default 3000)\n"
    "  --control PATH      serve the control endpoint (quonctl) on the Unix socket\n"
    "                      PATH (default: $XDG_RUNTIME_DIR/quon-PID.ctl, or\n"
    "                      /tmp/quon-PID.ctl)\n"
    "  --no-control        serve no control endpoint\n"
    "  --no-links          relay every packet; give no pair of clients a link of\n"
    "                      its own\n"
    "  --help              show this text\n"
    "  --version           show the version\n";

namespace {

bool ParseCount(std::string_view text, long long min, long long* value) {
  const char* end = text.data() + text.size();
  auto r = std::from_chars(text.data(), end, *value);
  return !text.empty() && r.ec == std::errc() && r.ptr == end && *value >= min;
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options* options, std::string* error) {
  int i = 1;
  for (; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (arg.size() < 2 || arg.substr(0, 2) != "--") break;
    std::string_view name = arg;
    std::string_view value;
    bool has_value = false;
    std::size_t eq = arg.find('=');
    if (eq != std::string_view::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      has_value = true;
    }
    auto take_value = [&]() -> bool {
      if (has_value) return true;
      if (i + 1 >= argc) {
        *error = std::string(name) + " needs a value";
        return false;
      }
      value = argv[++i];
      return true;
    };
    long long number = 0;
    if (name == "--help") {
      options->help = true;
    } else if (name == "--version") {
      options->version = true;
    } else if (name == "--trace") {
      options->trace = true;
    } else if (name == "--sockets") {
      options->sockets = true;
    } else if (name == "--no-control") {
      options->no_control = true;
    } else if (name == "--no-links") {
      options->no_links = true;
    } else if (name == "--control") {
      if (!take_value()) return false;
      if (value.empty()) {
        *error = "--control needs a path";
        return false;
      }
      options->control = value;
    } else if (name == "--path") {
      if (!take_value()) return false;
      options->path.emplace_back(value);
    } else if (name == "--log") {
      if (!take_value()) return false;
      options->log = value;
    } else if (name == "--files-root") {
      if (!take_value()) return false;
      options->files_root = value;
    } else if (name == "--queue-limit") {
      if (!take_value()) return false;
      if (!ParseCount(value, 1024, &number)) {
        *error = "--queue-limit needs a number of bytes, at least 1024";
        return false;
      }
      options->queue_limit = static_cast<std::size_t>(number);
    } else if (name == "--grace") {
      if (!take_value()) return false;
      if (!ParseCount(value, 0, &number) || number > 3600000) {
        *error = "--grace needs a number of milliseconds";
        return false;
      }
      options->grace_ms = static_cast<int>(number);
    } else {
      *error = "unknown option " + std::string(name);
      return false;
    }
  }
  for (; i < argc; ++i) options->program.emplace_back(argv[i]);
  if (options->program.empty() && !options->help && !options->version) {
    *error = "no program to start";
    return false;
  }
  return true;
}

}  // namespace varn::quon
