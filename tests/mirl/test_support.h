// A test vocabulary whose functions record how they saw their arguments,
// and a way to run scripts with their output captured.
#ifndef VARN_TESTS_MIRL_TEST_SUPPORT_H_
#define VARN_TESTS_MIRL_TEST_SUPPORT_H_

#include <string>
#include <vector>

#include "host/mirl/mirl.h"

namespace mirl_test {

// What the last probe() or call_handler() call saw.
struct Seen {
  int count = -1;
  std::vector<int> types;        // arun_peek_parm of each argument
  std::vector<int> ints;         // arun_get_int_parm of each argument, -999 when refused
  bool parm_calls_agree = true;  // get_parm and get_typed_parm match peek_parm
  std::string text0;             // get_string_parm(0), "<none>" when refused
  std::string optional2;         // get_optional_string_parm(2, "dflt")
  int call_op_result = -1;
  int flag_after_call = -1;
  std::string after_call;  // argument 1, read again after the handler ran
};
extern Seen seen;
// A function value that keep() held on to (released by the test).
extern MIRLValue* kept;

// probe(...), fail(code), explode(), call_handler(fn, text),
// set_var(&name, value), keep(fn), and the constant ANSWER (42).
void RegisterTestVocabulary();

struct ScriptRun {
  int status;
  std::string printed;
  std::string reported;
};
ScriptRun RunScript(const std::string& text, bool keep_going = false);

// Collects what the runtime writes to the report stream while alive.
class ReportCapture {
 public:
  ReportCapture();
  ~ReportCapture();
  std::string Text();

 private:
  std::FILE* file_;
};

}  // namespace mirl_test

#endif  // VARN_TESTS_MIRL_TEST_SUPPORT_H_
