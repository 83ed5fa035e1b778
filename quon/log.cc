#include "quon/log.h"

#include <cstdint>
#include <cstdio>
#include <ctime>

#include "platform/io.h"
#include "platform/system.h"

namespace varn::quon {

Log::~Log() {
  if (owned_) platform::Close(fd_);
}

void Log::Write(std::string line) {
  line.push_back('\n');
  platform::WriteAll(fd_, line.data(), line.size());
}

void Log::Note(std::string_view text) {
  std::string line = "quon: ";
  line.append(text);
  Write(std::move(line));
}

void Log::ClientLine(std::string_view name, std::string_view pid, std::string_view text) {
  std::string line(name);
  line.push_back('[');
  line.append(pid);
  line.append("]: ");
  line.append(text);
  Write(std::move(line));
}

void Log::Trace(std::string_view source, std::string_view destination, std::string_view word,
                std::size_t length) {
  if (!trace_) return;
  std::string line;
  AppendTimeOfDay(&line);
  line.push_back(' ');
  line.append(source);
  line.append(" -> ");
  line.append(destination);
  line.push_back(' ');
  line.append(word);
  line.push_back(' ');
  line.append(std::to_string(length));
  Write(std::move(line));
}

void AppendTimeOfDay(std::string* out) {
  std::int64_t seconds;
  int millis;
  platform::NowSecondsMillis(&seconds, &millis);
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  localtime_r(&t, &tm);
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%02d:%02d:%02d.%03d", tm.tm_hour, tm.tm_min, tm.tm_sec,
                millis);
  out->append(stamp);
}

std::string Printable(std::string_view text, std::size_t limit) {
  while (!text.empty() && text.back() == '\0') text.remove_suffix(1);
  std::string out;
  for (std::size_t i = 0; i < text.size() && i < limit; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    out.push_back(c < 0x20 || c == 0x7f ? '.' : static_cast<char>(c));
  }
  if (text.size() > limit) out.append("...");
  return out;
}

}  // namespace varn::quon
