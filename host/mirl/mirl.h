// Stand-in for the environment's Mirl runtime: script values, the arguments
// of a script call, script errors, vocabulary registration, and calls of
// script functions. It is its own shared library (libmirl.so); libvarn's
// script bindings call it by these names, and the script runner (mirlrun)
// uses it to run scripts.
//
// Values. Every value is a MIRLValue reached by pointer and counted: a
// value handed to the caller (by aval_create_*, aval_copy_value,
// aval_tail_list, arun_get_parm, arun_get_typed_parm, autil_call) belongs to
// the caller, who releases it with aval_free_value. AvalTrue and AvalFalse
// are shared values that live for ever; releasing them does nothing. A list
// takes over the items put into it. A vocabulary function hands its result
// over to the runtime.
//
// Threads: the runtime is used from one thread, the one that runs the
// script (the host's main thread); nothing in it is locked.
#ifndef VARN_HOST_MIRL_MIRL_H_
#define VARN_HOST_MIRL_MIRL_H_

#include <stdint.h>

#include <cstdio>
#include <string>

#define MIRL_EXPORT __attribute__((visibility("default")))

extern "C" {

typedef struct MIRLValue MIRLValue;

// Type tags, as arun_peek_parm and arun_get_parm report them. 0: no value
// (an argument that is not there).
enum {
  AvalNone = 0,
  AvalInteger = 1,
  AvalReal = 2,
  AvalString = 3,
  AvalBoolean = 4,
  AvalList = 5,
  AprgFunction = 6,  // a function of a script or of a vocabulary
  AvalNil = 7,       // the script's nil
  AvalSymbol = 8,    // a reference to a script variable (&name in a script)
};

MIRL_EXPORT extern MIRLValue* const AvalTrue;
MIRL_EXPORT extern MIRLValue* const AvalFalse;

// ---- Vocabularies -----------------------------------------------------------

// A vocabulary function reads the arguments of the current call with the
// arun_ calls and returns its result (null: no value).
typedef MIRLValue* (*AutilFunction)(void);

enum { AutilFunctionEntry = 0, AutilConstantEntry = 2 };

// One entry of a vocabulary: seven pointer-sized fields. value holds the
// function (an AutilFunction) or the integer of a constant.
typedef struct AutilVocEntry {
  const char* name;
  intptr_t kind;
  intptr_t value;
  intptr_t reserved[4];
} AutilVocEntry;

typedef struct AutilVocabulary {
  const char* domain;
  intptr_t reserved;
  const AutilVocEntry* table;
  intptr_t count;
} AutilVocabulary;

// Registers `count` vocabularies (an array of descriptors; the runtime keeps
// the pointers). Names of every vocabulary become visible to scripts.
// Non-zero on success; 0 for a null descriptor, an entry without a name or
// of an unknown kind, or a name that another registered vocabulary already
// has. Registering the same descriptor again succeeds and changes nothing.
// The first three arguments are reserved (0).
MIRL_EXPORT int autil_initialize(int reserved_a, int reserved_b, int reserved_c, int count,
                                 const AutilVocabulary* vocabularies);

// The scope of the functions a script defines.
MIRL_EXPORT extern void* const AdbgVoc;

// Calls the function `name` of the scope (AdbgVoc: the script's own
// functions, then the registered vocabularies) with argc values (MIRLValue*
// arguments after argc, borrowed). *result receives the function's result
// (null when it gave none). 1 when the function was found and called, 0
// otherwise (an empty or unknown name: *result is null, nothing is raised).
MIRL_EXPORT int autil_call(void* scope, const char* name, MIRLValue** result, int argc, ...);

// ---- Arguments of the current vocabulary call --------------------------------

MIRL_EXPORT int arun_num_parm(void);
// Type tag of argument i (from 0), 0 when the call has no such argument.
MIRL_EXPORT int arun_peek_parm(int i);
// The argument's type and value; 0 (type 0, value null) when it is missing.
MIRL_EXPORT int arun_get_parm(int i, int* type, MIRLValue** value);
// The argument when it is of the given type; 0 (value null) when it is
// missing or of another type. Nothing is raised.
MIRL_EXPORT int arun_get_typed_parm(int i, int type, MIRLValue** value);
// The argument as an int when it is an integer or a boolean (1, 0); 0
// otherwise. Nothing is raised.
MIRL_EXPORT int arun_get_int_parm(int i, int* value);

// ---- Script errors ----------------------------------------------------------

// Non-zero while a script error is pending (raised and not yet reported).
MIRL_EXPORT extern int AerrFlag;

// Raises a script error: domain, code, word, and a detail made from a
// printf format and its arguments (format null: no detail). While an error
// is pending a second one is dropped: the first is the cause. Returns 0.
MIRL_EXPORT int arun_aerr_set(const char* domain, int code, const char* word, const char* format,
                              ...) __attribute__((format(printf, 4, 5)));
// Raises an error about argument `argument` (from 0) of the current call:
// domain "MIRL", the code, the message as word, "argument N" as detail.
MIRL_EXPORT int arun_parm_error(int code, int argument, const char* message);
// Adds where the script is (its file, line and function) to the pending
// error.
MIRL_EXPORT void aerr_add_location(void);
// Writes the pending error, if any, to the report stream as one line and
// clears it:
//   <domain> error <code>: <word>[: <detail>][ (at <file>:<line>[ in <function>])]
MIRL_EXPORT void aerr_report(void);
// Raises the error of a failed allocation ("MIRL", 1, "out of memory").
MIRL_EXPORT void aerr_memory_error(void);
// Writes a warning line at once; nothing stays pending. Returns 1.
//   <domain> warning <code>: <word>[: <detail>]
MIRL_EXPORT int aerr_process_warning(const char* domain, int code, const char* word,
                                     const char* detail);

// ---- The calling script -----------------------------------------------------

// Sets the variable that `variable` (an AvalSymbol value) names, in the
// script function that made the current call, to value. The runtime takes
// its own reference; the caller still releases its value. 1, or 0 when
// variable is not a symbol.
MIRL_EXPORT int arun_set_value(MIRLValue* variable, MIRLValue* value);
// Pushes a value for the next arun_call_op (borrowed until then).
MIRL_EXPORT int arun_push_temp(MIRLValue* value);
// Runs operation op on the top `count` pushed values and removes them.
// Operation 19 calls the first of them (a function value) with the others
// as arguments; its result is dropped. 1 when the call ran without a
// script error, 0 otherwise (the error stays pending).
MIRL_EXPORT int arun_call_op(int op, int count);
enum { ArunOpCall = 19 };

// ---- Values -----------------------------------------------------------------

MIRL_EXPORT MIRLValue* aval_create_string(const char* text);  // null: ""
MIRL_EXPORT MIRLValue* aval_create_raw_integer(int value);
MIRL_EXPORT MIRLValue* aval_create_real(double value);
// A list of n items, each nil until put.
MIRL_EXPORT MIRLValue* aval_create_list(int n);
// Puts item (taken over) at position i (0 <= i < length); 1, or 0 (the
// item is released) when i is outside the list or list is not a list.
MIRL_EXPORT int aval_put_list_item(MIRLValue* list, int i, MIRLValue* item);
// Puts item (taken over) before the first item; a null list makes a new
// list of the item. Returns the list.
MIRL_EXPORT MIRLValue* aval_insert_list_item(MIRLValue* list, MIRLValue* item);
// Adds item (taken over) after the last item; 1, or 0 when list is not a
// list (the item is released).
MIRL_EXPORT int aval_append_list_item(MIRLValue* list, MIRLValue* item);
// Item n (from 0), borrowed from the list; null outside the list.
MIRL_EXPORT MIRLValue* aval_nth_list(MIRLValue* list, int n);
// A new list of the items from position n on (empty when n is past the
// end); null when list is not a list.
MIRL_EXPORT MIRLValue* aval_tail_list(MIRLValue* list, int n);
// Number of items of a list; -1 for another value.
MIRL_EXPORT int aval_list_length(const MIRLValue* list);
// The value converted to the type: to AvalString an integer, real (%g),
// boolean ("true", "false") or text; to AvalInteger an integer, boolean,
// real (cut) or a text that is a whole number. Null when it cannot be
// converted.
MIRL_EXPORT MIRLValue* aval_copy_value(const MIRLValue* value, int type);
MIRL_EXPORT int aval_type(const MIRLValue* value);  // AvalNone for null
// The characters of a text value (NUL-terminated, valid while the value
// is); null for other values.
MIRL_EXPORT const char* aval_value_data(const MIRLValue* value);
// Length of a text value; -1 for other values.
MIRL_EXPORT int aval_string_length(const MIRLValue* value);
// Copies a text value into buffer (at most size - 1 characters and a NUL);
// 1, or 0 for another value or a buffer of size 0.
MIRL_EXPORT int aval_string_value(const MIRLValue* value, int size, char* buffer);
// 1 and the number for an integer or a boolean; 0 otherwise.
MIRL_EXPORT int aval_integer_value(const MIRLValue* value, int* out);
// 1 and the flag for a boolean; 0 otherwise.
MIRL_EXPORT int aval_boolean_value(const MIRLValue* value, int* flag);
// Releases the caller's share of the value (null: nothing).
MIRL_EXPORT void aval_free_value(MIRLValue* value);
MIRL_EXPORT void aval_free_values(MIRLValue** values, int count);
// The value as an int: integers, booleans, reals (cut), texts that are
// whole numbers; 0 for anything else.
MIRL_EXPORT int convertToInt(const MIRLValue* value);

// Number of values alive (made and not yet released), shared ones not
// counted: lets tests see that calls release what they take.
MIRL_EXPORT long mirl_live_values(void);

}  // extern "C"

namespace mirl {

// A text argument, owning its value (released on destruction).
class MIRL_EXPORT Parm {
 public:
  explicit Parm(MIRLValue* value) : value_(value) {}
  ~Parm();
  Parm(Parm&& other) noexcept : value_(other.value_) { other.value_ = nullptr; }
  Parm(const Parm&) = delete;
  Parm& operator=(const Parm&) = delete;
  Parm& operator=(Parm&&) = delete;
  // Null when the argument was missing or not a text.
  MIRLValue* value() const { return value_; }

 private:
  MIRLValue* value_;
};

// Argument i when it is a text; a Parm holding no value otherwise.
MIRL_EXPORT Parm get_string_parm(int i);
// Argument i when it is a text, else a text made from default_text.
MIRL_EXPORT Parm get_optional_string_parm(int i, const char* default_text);

// Running scripts (the runner's side).
struct RunOptions {
  // Go on with the next statement after a statement that raised a script
  // error (reported at once); otherwise the script stops there.
  bool keep_going = false;
};

// Parses and runs a script. Returns 0 when it ran to its end with no
// script error, 1 when a script error was reported (it stopped there
// unless keep_going), 2 when the script could not be read or parsed (the
// reason is written to the report stream as "<file>:<line>: <reason>").
MIRL_EXPORT int RunScriptFile(const char* path, const RunOptions& options);
MIRL_EXPORT int RunScriptText(const std::string& text, const char* name, const RunOptions& options);

// Where error and warning lines go (default: the standard error stream),
// and where print writes (default: the standard output). Both are flushed
// after every line. Null restores the default.
MIRL_EXPORT void SetReportStream(std::FILE* stream);
MIRL_EXPORT void SetPrintStream(std::FILE* stream);

}  // namespace mirl

#endif  // VARN_HOST_MIRL_MIRL_H_
