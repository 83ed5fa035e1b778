// quon: the hub process. Parses the command line, opens the log, starts the
// first client and runs the event loop until the last client has ended.
#include <csignal>
#include <cstdio>
#include <string>
#include <utility>

#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/io.h"
#include "platform/spawn.h"
#include "platform/system.h"
#include "quon/control_endpoint.h"
#include "quon/hub.h"
#include "quon/log.h"
#include "quon/options.h"

#ifndef QUON_VERSION
#define QUON_VERSION "0"
#endif

namespace {

int Run(int argc, char** argv) {
  using namespace varn;
  quon::Options options;
  std::string error;
  if (!quon::ParseOptions(argc, argv, &options, &error)) {
    std::fprintf(stderr, "quon: %s\n%s", error.c_str(), quon::kUsage);
    return 2;
  }
  if (options.help) {
    std::fputs(quon::kUsage, stdout);
    return 0;
  }
  if (options.version) {
    std::printf("quon %s\n", QUON_VERSION);
    return 0;
  }

  int log_fd = platform::kStderr;
  if (!options.log.empty()) {
    int open_error = 0;
    log_fd = platform::OpenForAppend(options.log, &open_error);
    if (log_fd < 0) {
      std::fprintf(stderr, "quon: cannot open log %s: %s\n", options.log.c_str(),
                   platform::ErrorText(open_error).c_str());
      return 2;
    }
  }
  quon::Log log(log_fd, log_fd != platform::kStderr);
  log.set_trace(options.trace);

  // Opened once: every client's file requests are resolved beneath it.
  std::string root_dir = options.files_root.empty() ? "." : options.files_root;
  platform::FilesRoot root;
  int root_error = 0;
  if (!root.Open(root_dir, &root_error)) {
    log.Note("cannot serve files from " + root_dir + ": " + platform::ErrorText(root_error));
    return 2;
  }

  platform::IgnoreBrokenPipeSignal();
  platform::EventLoop loop;
  if (!loop.ok()) {
    log.Note("cannot create the event loop");
    return 1;
  }
  quon::HubConfig config;
  config.extra_path = options.path;
  config.sockets = options.sockets;
  config.files_root = std::move(root);
  config.limits.high_water = options.queue_limit;
  config.limits.low_water = options.queue_limit / 2;
  config.grace_ms = options.grace_ms;
  config.child_stderr = log_fd;
  if (!options.no_links) config.link_directory = quon::DefaultControlDirectory();
  quon::Hub hub(loop, log, std::move(config));
  if (!hub.Init(&error)) {
    log.Note(error);
    return 1;
  }
  // The control endpoint: announced in the log, removed when the hub ends.
  // Without --control a socket that cannot be made is only noted.
  quon::ControlEndpoint control(loop, log,
                                [&hub](std::string* out) { hub.AppendControlTable(out); });
  if (!options.no_control) {
    std::string path = options.control;
    if (path.empty()) {
      // Sockets of hubs that were killed go first, so they do not pile up.
      quon::RemoveStaleControlSockets(quon::DefaultControlDirectory());
      path = quon::DefaultControlPath(platform::ProcessId());
    }
    if (control.Open(path, &error)) {
      hub.set_control(&control);
      log.Note("control endpoint " + path);
    } else if (!options.control.empty()) {
      log.Note(error);
      return 1;
    } else {
      log.Note(error + "; no control endpoint");
    }
  }
  if (!loop.WatchSignals({SIGINT, SIGTERM}, [&hub](int signo) { hub.Shutdown(signo); })) {
    log.Note("cannot watch signals");
    return 1;
  }
  if (!hub.StartFirst(options.program, &error)) {
    log.Note(error);
    return 127;
  }
  while (!hub.finished()) {
    if (!loop.RunOnce(-1)) {
      log.Note("event loop failed");
      return 1;
    }
  }
  return hub.exit_code();
}

}  // namespace

int main(int argc, char** argv) { return Run(argc, argv); }
