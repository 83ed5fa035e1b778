// The pending script error, its report, warnings, and the output streams.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>

#include "host/mirl/errors.h"
#include "host/mirl/interpreter.h"
#include "host/mirl/mirl.h"

namespace {

struct PendingError {
  std::string domain;
  int code = 0;
  std::string word;
  std::string detail;
  std::string location;  // " (at file:line in function)", empty until added
};

// Kept in a form that never throws once made: a failed allocation while an
// error is raised must not lose the flag.
PendingError pending;
std::FILE* report_stream = nullptr;
std::FILE* print_stream = nullptr;

std::string Describe(const char* domain, const char* kind, int code, const std::string& word,
                     const std::string& detail) {
  std::string line = domain != nullptr ? domain : "";
  line.append(" ").append(kind).append(" ").append(std::to_string(code));
  if (!word.empty()) line.append(": ").append(word);
  if (!detail.empty()) line.append(": ").append(detail);
  return line;
}

}  // namespace

namespace mirl {

std::FILE* ReportStream() { return report_stream != nullptr ? report_stream : stderr; }
std::FILE* PrintStream() { return print_stream != nullptr ? print_stream : stdout; }

void WriteLine(std::FILE* stream, const std::string& line) {
  std::fwrite(line.data(), 1, line.size(), stream);
  std::fputc('\n', stream);
  std::fflush(stream);
}

void SetReportStream(std::FILE* stream) { report_stream = stream; }
void SetPrintStream(std::FILE* stream) { print_stream = stream; }

}  // namespace mirl

extern "C" {

int AerrFlag = 0;

int arun_aerr_set(const char* domain, int code, const char* word, const char* format, ...) {
  if (AerrFlag != 0) return 0;
  AerrFlag = 1;
  try {
    pending = PendingError{};
    pending.domain = domain != nullptr ? domain : "";
    pending.code = code;
    pending.word = word != nullptr ? word : "";
    if (format != nullptr) {
      va_list args;
      va_start(args, format);
      va_list again;
      va_copy(again, args);
      int size = std::vsnprintf(nullptr, 0, format, args);
      va_end(args);
      if (size > 0) {
        std::string detail(static_cast<size_t>(size) + 1, '\0');
        std::vsnprintf(detail.data(), detail.size(), format, again);
        detail.resize(static_cast<size_t>(size));
        pending.detail = std::move(detail);
      }
      va_end(again);
    }
  } catch (...) {
    // Out of memory: the error keeps what it got so far.
  }
  return 0;
}

int arun_parm_error(int code, int argument, const char* message) {
  return arun_aerr_set("MIRL", code, message, "argument %d", argument);
}

void aerr_add_location(void) {
  if (AerrFlag == 0 || !pending.location.empty()) return;
  try {
    mirl::Location where;
    if (!mirl::CurrentLocation(&where)) return;
    std::string text = " (at " + where.file + ":" + std::to_string(where.line);
    if (!where.function.empty()) text.append(" in ").append(where.function);
    pending.location = text + ")";
  } catch (...) {
    // Out of memory: the error goes without its location.
  }
}

void aerr_report(void) {
  if (AerrFlag == 0) return;
  AerrFlag = 0;
  try {
    mirl::WriteLine(mirl::ReportStream(), Describe(pending.domain.c_str(), "error", pending.code,
                                                   pending.word, pending.detail) +
                                              pending.location);
  } catch (...) {
    std::fputs("MIRL error 1: out of memory\n", mirl::ReportStream());
  }
  pending = PendingError{};
}

void aerr_memory_error(void) { arun_aerr_set("MIRL", 1, "out of memory", nullptr); }

int aerr_process_warning(const char* domain, int code, const char* word, const char* detail) {
  try {
    mirl::WriteLine(mirl::ReportStream(),
                    Describe(domain, "warning", code, word ? word : "", detail ? detail : ""));
  } catch (...) {
    std::fputs("MIRL warning: out of memory\n", mirl::ReportStream());
  }
  return 1;
}

}  // extern "C"
