// The errors that scripts see from the server operations: domain "MIRL",
// codes 350 to 359, one word each.
#ifndef VARN_SCRIPT_SCRIPT_ERRORS_H_
#define VARN_SCRIPT_SCRIPT_ERRORS_H_

namespace varn::script {

enum ScriptError {
  kCouldNotInvoke = 350,  // a start failed; detail: the start's error text
  kMissingBlockTitle = 351,
  kVarnError = 352,  // a library call failed (RaiseVarnError)
  kNoServerName = 353,
  kServerError = 354,       // a wait for DONE ended with ERROR; detail: its text
  kNoServerSet = 355,       // the server index is not valid
  kServerBusy = 356,        // detail: the server's name
  kServerNotRunning = 357,  // detail: the server's name
  kReceiveWarning = 358,    // the warning after a handler failed
  kCouldNotOpenHelp = 359,  // not raised by the library
};

// The word of a code of 350..359; null for other codes.
const char* ScriptErrorWord(int code);

// Raises the error of that code in domain "MIRL" with a detail made from a
// printf format (null: no detail). Returns what the runtime returns.
int RaiseScriptError(int code, const char* format = nullptr, ...)
    __attribute__((format(printf, 2, 3)));

// Reads the library's last error number n, writes "Varn error, error code =
// n" to the error stream and raises 352 with "n, <message>".
int RaiseVarnError();

}  // namespace varn::script

#endif  // VARN_SCRIPT_SCRIPT_ERRORS_H_
