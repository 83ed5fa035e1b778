#include "quon/control_endpoint.h"

#include <cerrno>
#include <filesystem>
#include <utility>

#include "platform/io.h"
#include "platform/spawn.h"
#include "platform/system.h"
#include "quon/session_view.h"
#include "transport/wire_format.h"

namespace varn::quon {
namespace {

// Bytes taken from one control client per wake-up.
constexpr std::size_t kReadBudget = 64 * 1024;
// After a failed accept (descriptors used up), how long until the next try.
constexpr std::int64_t kAcceptRetryMs = 1000;

constexpr std::string_view kTraceHeader =
    "trace\ttime\tsource\tdestination\tcategory\tsize\ttext\n";
constexpr std::string_view kCategoryPrefix = "category=";

std::vector<std::string_view> SplitWords(std::string_view line) {
  std::vector<std::string_view> words;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    std::size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) words.push_back(line.substr(start, i - start));
  }
  return words;
}

std::string ErrorLine(std::string_view text, std::string_view detail = {}) {
  std::string line = "error\t";
  line.append(text);
  if (!detail.empty()) AppendEscaped(detail, 80, &line);
  line.push_back('\n');
  return line;
}

bool SameAddress(std::string_view wanted, std::string_view address) {
  return wanted == address || wanted == wire::WithoutRoutePrefix(address);
}

}  // namespace

std::string DefaultControlDirectory() {
  const char* dir = platform::GetEnv("XDG_RUNTIME_DIR");
  std::string base = dir != nullptr && dir[0] == '/' ? dir : "/tmp";
  if (base.size() > 1 && base.back() == '/') base.pop_back();
  return base;
}

std::string DefaultControlPath(unsigned pid) {
  return DefaultControlDirectory() + "/quon-" + std::to_string(pid) + ".ctl";
}

int RemoveStaleControlSockets(const std::string& directory) {
  int removed = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(directory, ec)) {
    std::string name = entry.path().filename().string();
    constexpr std::string_view kPrefix = "quon-";
    constexpr std::string_view kSuffix = ".ctl";
    if (name.size() <= kPrefix.size() + kSuffix.size() || name.rfind(kPrefix, 0) != 0 ||
        name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
      continue;
    }
    std::string digits = name.substr(kPrefix.size(), name.size() - kPrefix.size() - kSuffix.size());
    if (digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) continue;
    // A hub that is starting has bound its socket a moment before it
    // listens: only a file whose process is gone counts.
    int pid = std::stoi(digits);
    if (pid <= 0 || platform::SignalProcess(pid, 0, false)) continue;
    if (platform::RemoveStaleSocket(entry.path().string())) ++removed;
  }
  return removed;
}

ControlEndpoint::ControlEndpoint(platform::EventLoop& loop, Log& log, TableBuilder table)
    : loop_(loop), log_(log), table_(std::move(table)) {}

ControlEndpoint::~ControlEndpoint() {
  if (round_end_queued_) loop_.CancelRoundEnd(this);
  if (accept_timer_ != 0) loop_.CancelTimer(accept_timer_);
  for (auto& [id, listener] : clients_) {
    loop_.Unwatch(listener->fd);
    platform::Close(listener->fd);
  }
  clients_.clear();
  if (listen_fd_ >= 0) {
    loop_.Unwatch(listen_fd_);
    platform::Close(listen_fd_);
    platform::RemoveSocketFile(path_, file_id_);
  }
}

bool ControlEndpoint::Open(const std::string& path, std::string* error) {
  int error_number = 0;
  int fd = platform::ListenUnixSocket(path, &file_id_, &error_number);
  if (fd < 0) {
    *error = "cannot create the control socket " + path + ": " + platform::ErrorText(error_number);
    return false;
  }
  listen_fd_ = fd;
  path_ = path;
  if (!loop_.Watch(listen_fd_, true, false, [this](platform::IoEvents) { OnAcceptable(); })) {
    // Nobody would accept on it: it goes, file and all.
    *error = "cannot watch the control socket";
    platform::Close(listen_fd_);
    platform::RemoveSocketFile(path_, file_id_);
    listen_fd_ = -1;
    path_.clear();
    return false;
  }
  return true;
}

ControlEndpoint::Listener* ControlEndpoint::Find(std::uint64_t id) {
  auto it = clients_.find(id);
  return it == clients_.end() ? nullptr : it->second.get();
}

void ControlEndpoint::OnAcceptable() {
  for (;;) {
    int error = 0;
    int fd = platform::AcceptConnection(listen_fd_, &error);
    if (fd < 0) {
      if (error != EAGAIN && error != EWOULDBLOCK && error != ECONNABORTED) {
        // The connection stays pending, so the socket stays readable: with
        // descriptors used up the loop would come back here at once, again
        // and again. Accepting waits until a connection of ours goes.
        if (accept_timer_ == 0) {
          log_.Note("control socket: cannot accept: " + platform::ErrorText(error) +
                    "; trying again in a second");
          loop_.Modify(listen_fd_, false, false);
          accept_timer_ = loop_.AddTimer(kAcceptRetryMs, [this] {
            accept_timer_ = 0;
            loop_.Modify(listen_fd_, true, false);
          });
        }
      }
      return;
    }
    if (clients_.size() >= kMaxClients) {
      // Told why, as far as the socket takes it at once, and closed.
      std::string line = ErrorLine("too many control connections");
      platform::WriteSome(fd, line.data(), line.size());
      platform::Close(fd);
      continue;
    }
    auto listener = std::make_unique<Listener>();
    listener->id = next_id_++;
    listener->fd = fd;
    std::uint64_t id = listener->id;
    clients_[id] = std::move(listener);
    if (!loop_.Watch(fd, true, false,
                     [this, id](platform::IoEvents events) { OnEvents(id, events); })) {
      platform::Close(fd);
      clients_.erase(id);
    }
  }
}

void ControlEndpoint::OnEvents(std::uint64_t id, platform::IoEvents events) {
  Listener* listener = Find(id);
  if (listener == nullptr) return;
  if (events.writable && !Flush(*listener)) return;
  if (!listener->input_ended && (events.readable || events.hangup || events.error)) {
    ReadRequests(*listener);
  } else if (listener->input_ended && (events.hangup || events.error)) {
    Drop(*listener, {});
  }
}

bool ControlEndpoint::ReadRequests(Listener& listener) {
  char buf[4096];
  std::size_t total = 0;
  while (total < kReadBudget) {
    long n = platform::ReadSome(listener.fd, buf, sizeof buf);
    if (n < 0) {
      int e = platform::LastError();
      if (e == EAGAIN || e == EWOULDBLOCK) return true;
      Drop(listener, {});
      return false;
    }
    if (n == 0) {
      // Nothing more will be asked; what was asked is still answered.
      listener.input_ended = true;
      if (!listener.tracing && listener.output.empty()) {
        Drop(listener, {});
        return false;
      }
      loop_.Modify(listener.fd, false, listener.writing);
      return true;
    }
    total += static_cast<std::size_t>(n);
    // A tracer's connection carries the trace only: what it sends is read
    // and thrown away, never answered.
    if (listener.tracing) continue;
    std::string_view data(buf, static_cast<std::size_t>(n));
    while (!data.empty()) {
      std::size_t end = data.find('\n');
      std::string_view piece = data.substr(0, end);
      if (listener.skipping) {
        if (end != std::string_view::npos) listener.skipping = false;
      } else if (listener.input.size() + piece.size() > kMaxRequestLine) {
        // An overlong line is answered once and skipped to its end.
        listener.input.clear();
        listener.skipping = end == std::string_view::npos;
        if (!Answer(listener, ErrorLine("request line too long"))) return false;
      } else if (end == std::string_view::npos) {
        listener.input.append(piece);
      } else {
        std::string line = std::move(listener.input);
        listener.input.clear();
        line.append(piece);
        if (!HandleLine(listener, line)) return false;
      }
      data.remove_prefix(end == std::string_view::npos ? data.size() : end + 1);
    }
  }
  return true;
}

bool ControlEndpoint::HandleLine(Listener& listener, std::string_view line) {
  // A tracer's connection carries the trace only; what it sends is ignored.
  if (listener.tracing) return true;
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  std::vector<std::string_view> words = SplitWords(line);
  if (words.empty()) return true;
  std::string_view verb = words[0];
  if (verb == "ps") {
    if (words.size() > 1) return Answer(listener, ErrorLine("ps takes no arguments"));
    std::string answer;
    table_(&answer);
    answer.append("end\n");
    return Answer(listener, answer);
  }
  if (verb == "trace") {
    words.erase(words.begin());
    return StartTrace(listener, words);
  }
  return Answer(listener, ErrorLine("unknown request: ", verb));
}

bool ControlEndpoint::StartTrace(Listener& listener, const std::vector<std::string_view>& words) {
  std::vector<std::string> addresses;
  std::vector<std::string> categories;
  for (std::string_view word : words) {
    if (word.substr(0, kCategoryPrefix.size()) == kCategoryPrefix) {
      std::string_view category = word.substr(kCategoryPrefix.size());
      int code = 0;
      if (!wire::CategoryFromWord(category, &code)) {
        return Answer(listener, ErrorLine("unknown category: ", category));
      }
      categories.emplace_back(category);
    } else {
      addresses.emplace_back(word);
    }
  }
  listener.addresses = std::move(addresses);
  listener.words = std::move(categories);
  listener.tracing = true;
  ++tracers_;
  return Answer(listener, kTraceHeader);
}

bool ControlEndpoint::Answer(Listener& listener, std::string_view text) {
  // One answer always fits, however long the table; answers that pile up
  // unread do not.
  if (!listener.output.empty() && listener.output.size() + text.size() > kOutputLimit) {
    Drop(listener, "control client does not read its answers, disconnected");
    return false;
  }
  listener.output.Append(text.data(), text.size());
  QueueFlush(listener);
  return true;
}

void ControlEndpoint::Stream(Listener& listener, std::string_view line) {
  ReportDropped(listener);
  if (listener.dropped > 0 || listener.output.size() + line.size() > kOutputLimit) {
    ++listener.dropped;
    return;
  }
  listener.output.Append(line.data(), line.size());
  QueueFlush(listener);
}

void ControlEndpoint::ReportDropped(Listener& listener) {
  if (listener.dropped == 0 || listener.output.size() > kOutputLimit / 2) return;
  std::string line = "dropped\t" + std::to_string(listener.dropped) + "\n";
  listener.dropped = 0;
  listener.output.Append(line.data(), line.size());
  QueueFlush(listener);
}

void ControlEndpoint::QueueFlush(Listener& listener) {
  // With the write interest on, the loop writes once the socket takes more.
  if (listener.flush_queued || listener.writing) return;
  listener.flush_queued = true;
  flush_list_.push_back(listener.id);
  if (!round_end_queued_) {
    round_end_queued_ = true;
    loop_.AtRoundEnd(this);
  }
}

void ControlEndpoint::OnRoundEnd() {
  round_end_queued_ = false;
  std::vector<std::uint64_t> ids;
  ids.swap(flush_list_);
  for (std::uint64_t id : ids) {
    Listener* listener = Find(id);
    if (listener == nullptr) continue;
    listener->flush_queued = false;
    Flush(*listener);
  }
}

bool ControlEndpoint::Flush(Listener& listener) {
  if (listener.output.WriteTo(listener.fd) == OutputBuffer::Flush::kFailed) {
    Drop(listener, {});
    return false;
  }
  if (listener.dropped > 0) {
    ReportDropped(listener);
    if (listener.output.WriteTo(listener.fd) == OutputBuffer::Flush::kFailed) {
      Drop(listener, {});
      return false;
    }
  }
  if (listener.input_ended && !listener.tracing && listener.output.empty()) {
    Drop(listener, {});
    return false;
  }
  bool write = !listener.output.empty();
  if (write != listener.writing) {
    listener.writing = write;
    loop_.Modify(listener.fd, !listener.input_ended, write);
  }
  return true;
}

void ControlEndpoint::Drop(Listener& listener, std::string_view why) {
  if (!why.empty()) log_.Note(std::string(why));
  if (listener.tracing) --tracers_;
  loop_.Unwatch(listener.fd);
  platform::Close(listener.fd);
  clients_.erase(listener.id);  // `listener` is gone from here on
}

bool ControlEndpoint::Passes(const Listener& listener, std::string_view source,
                             std::string_view destination, std::string_view word) const {
  if (!listener.words.empty()) {
    bool found = false;
    for (const std::string& w : listener.words) found = found || w == word;
    if (!found) return false;
  }
  if (listener.addresses.empty()) return true;
  for (const std::string& a : listener.addresses) {
    if (SameAddress(a, source) || SameAddress(a, destination)) return true;
  }
  return false;
}

void ControlEndpoint::TracePacket(std::string_view source, std::string_view destination,
                                  std::string_view word, std::size_t size, std::string_view text) {
  std::string line;
  for (auto& [id, listener] : clients_) {
    if (!listener->tracing || !Passes(*listener, source, destination, word)) continue;
    if (line.empty()) {
      line.append("packet\t");
      AppendTimeOfDay(&line);
      line.push_back('\t');
      AppendEscaped(source, 200, &line);
      line.push_back('\t');
      AppendEscaped(destination, 200, &line);
      line.push_back('\t');
      line.append(word);
      line.push_back('\t');
      line.append(std::to_string(size));
      line.push_back('\t');
      AppendEscaped(text, kTraceTextLimit, &line);
      line.push_back('\n');
    }
    Stream(*listener, line);
  }
}

void ControlEndpoint::TraceNotice(std::string_view line) {
  for (auto& [id, listener] : clients_) {
    if (listener->tracing) Stream(*listener, line);
  }
}

}  // namespace varn::quon
