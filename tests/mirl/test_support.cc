#include "tests/mirl/test_support.h"

#include <cstdio>
#include <stdexcept>

#include <gtest/gtest.h>

namespace mirl_test {

Seen seen;
MIRLValue* kept = nullptr;

namespace {

const char* const kNone = "<none>";

std::string TextOf(const MIRLValue* value) {
  const char* data = aval_value_data(value);
  return data != nullptr ? data : kNone;
}

MIRLValue* Probe() {
  seen = Seen{};
  seen.count = arun_num_parm();
  for (int i = 0; i < seen.count; ++i) {
    int peeked = arun_peek_parm(i);
    seen.types.push_back(peeked);
    int number = -999;
    seen.ints.push_back(arun_get_int_parm(i, &number) != 0 ? number : -999);
    int type = -1;
    MIRLValue* value = nullptr;
    if (arun_get_parm(i, &type, &value) != 1 || type != peeked || value == nullptr)
      seen.parm_calls_agree = false;
    aval_free_value(value);
    if (arun_get_typed_parm(i, peeked, &value) != 1 || value == nullptr)
      seen.parm_calls_agree = false;
    aval_free_value(value);
    int other = peeked == AvalList ? AvalString : AvalList;
    if (arun_get_typed_parm(i, other, &value) != 0 || value != nullptr)
      seen.parm_calls_agree = false;
  }
  int type = -1;
  MIRLValue* value = AvalTrue;
  if (arun_get_parm(seen.count, &type, &value) != 0 || type != AvalNone || value != nullptr ||
      arun_peek_parm(seen.count) != AvalNone)
    seen.parm_calls_agree = false;
  seen.text0 = TextOf(mirl::get_string_parm(0).value());
  seen.optional2 = TextOf(mirl::get_optional_string_parm(2, "dflt").value());
  return aval_create_raw_integer(seen.count);
}

MIRLValue* Fail() {
  int code = 0;
  arun_get_int_parm(0, &code);
  arun_parm_error(code, 1, "bad value");
  return aval_create_string("dropped");  // the runtime releases it
}

MIRLValue* Explode() { throw std::runtime_error("boom"); }

MIRLValue* CallHandler() {
  MIRLValue* function = nullptr;
  MIRLValue* text = nullptr;
  arun_get_parm(0, nullptr, &function);
  arun_get_parm(1, nullptr, &text);
  arun_push_temp(function);
  arun_push_temp(text);
  int result = arun_call_op(ArunOpCall, 2);
  aval_free_value(function);
  aval_free_value(text);
  seen.call_op_result = result;
  seen.flag_after_call = AerrFlag;
  seen.after_call = TextOf(mirl::get_string_parm(1).value());
  return aval_create_raw_integer(result);
}

MIRLValue* SetVar() {
  MIRLValue* symbol = nullptr;
  MIRLValue* value = nullptr;
  arun_get_parm(0, nullptr, &symbol);
  arun_get_parm(1, nullptr, &value);
  int result = arun_set_value(symbol, value);
  aval_free_value(symbol);
  aval_free_value(value);
  return aval_create_raw_integer(result);
}

MIRLValue* Keep() {
  aval_free_value(kept);
  kept = nullptr;
  arun_get_typed_parm(0, AprgFunction, &kept);
  return nullptr;
}

template <typename F>
AutilVocEntry Function(const char* name, F function) {
  return AutilVocEntry{name, AutilFunctionEntry, reinterpret_cast<intptr_t>(+function), {}};
}

const AutilVocEntry kEntries[] = {
    Function("probe", Probe),
    Function("fail", Fail),
    Function("explode", Explode),
    Function("call_handler", CallHandler),
    Function("set_var", SetVar),
    Function("keep", Keep),
    {"ANSWER", AutilConstantEntry, 42, {}},
};
const AutilVocabulary kVocabulary = {"TEST", 0, kEntries, std::size(kEntries)};

}  // namespace

void RegisterTestVocabulary() { ASSERT_EQ(autil_initialize(0, 0, 0, 1, &kVocabulary), 1); }

ScriptRun RunScript(const std::string& text, bool keep_going) {
  std::FILE* printed = std::tmpfile();
  ReportCapture reported;
  mirl::SetPrintStream(printed);
  mirl::RunOptions options;
  options.keep_going = keep_going;
  int status = mirl::RunScriptText(text, "t.mirl", options);
  mirl::SetPrintStream(nullptr);
  std::rewind(printed);
  std::string out;
  int c;
  while ((c = std::fgetc(printed)) != EOF) out.push_back(static_cast<char>(c));
  std::fclose(printed);
  return ScriptRun{status, out, reported.Text()};
}

ReportCapture::ReportCapture() : file_(std::tmpfile()) { mirl::SetReportStream(file_); }

ReportCapture::~ReportCapture() {
  mirl::SetReportStream(nullptr);
  std::fclose(file_);
}

std::string ReportCapture::Text() {
  std::fflush(file_);
  std::rewind(file_);
  std::string text;
  int c;
  while ((c = std::fgetc(file_)) != EOF) text.push_back(static_cast<char>(c));
  std::fseek(file_, 0, SEEK_END);
  return text;
}

}  // namespace mirl_test
