#include "script/script_errors.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "host/mirl/mirl.h"
#include "varn.h"

namespace varn::script {
namespace {

constexpr const char* kWords[] = {
    "could not invoke program", "missing block title", "varn error",
    "no server name",           "server error",        "no server set",
    "server is busy",           "server not running",  "",
    "could not open help page",
};
constexpr int kFirstCode = kCouldNotInvoke;
constexpr int kCodeCount = sizeof kWords / sizeof kWords[0];

}  // namespace

const char* ScriptErrorWord(int code) {
  if (code < kFirstCode || code >= kFirstCode + kCodeCount) return nullptr;
  return kWords[code - kFirstCode];
}

int RaiseScriptError(int code, const char* format, ...) {
  const char* word = ScriptErrorWord(code);
  if (word == nullptr) word = "";
  if (format == nullptr) return arun_aerr_set("MIRL", code, word, nullptr);
  // The detail is formatted here and handed on as one text, so that the
  // runtime never sees a format of ours that it would format again.
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int n = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string detail(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(detail.data(), detail.size() + 1, format, again);
  va_end(again);
  return arun_aerr_set("MIRL", code, word, "%s", detail.c_str());
}

int RaiseVarnError() {
  int n = varn_get_error_no();
  std::fprintf(stderr, "Varn error, error code = %d\n", n);
  std::fflush(stderr);
  const char* message = varn_get_error_message(n);
  if (message == nullptr) return RaiseScriptError(kVarnError, "%d, unknown error", n);
  return RaiseScriptError(kVarnError, "%d, %s", n, message);
}

}  // namespace varn::script
