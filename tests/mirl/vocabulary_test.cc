#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/mirl/mirl.h"
#include "tests/mirl/test_support.h"

namespace {

using mirl_test::RunScript;
using mirl_test::seen;

class MirlVocabulary : public ::testing::Test {
 protected:
  void SetUp() override { mirl_test::RegisterTestVocabulary(); }
  void TearDown() override {
    aval_free_value(mirl_test::kept);
    mirl_test::kept = nullptr;
    RunScript("");
    EXPECT_EQ(mirl_live_values(), 0);
    EXPECT_EQ(AerrFlag, 0);
  }
};

MIRLValue* Nothing() { return nullptr; }

TEST_F(MirlVocabulary, RegistrationRefusesClashesAndBadEntries) {
  const AutilVocEntry clash[] = {
      {"unclashed_name", AutilFunctionEntry, reinterpret_cast<intptr_t>(Nothing), {}},
      {"probe", AutilFunctionEntry, reinterpret_cast<intptr_t>(Nothing), {}},
  };
  const AutilVocEntry builtin[] = {{"print", AutilConstantEntry, 1, {}}};
  const AutilVocEntry bad_kind[] = {{"odd_kind", 1, 1, {}}};
  const AutilVocEntry no_name[] = {{nullptr, AutilConstantEntry, 1, {}}};
  const AutilVocabulary refused[] = {
      {"CLASH", 0, clash, 2},
      {"BUILTIN", 0, builtin, 1},
      {"KIND", 0, bad_kind, 1},
      {"NONAME", 0, no_name, 1},
  };
  for (const AutilVocabulary& vocabulary : refused) {
    EXPECT_EQ(autil_initialize(0, 0, 0, 1, &vocabulary), 0) << vocabulary.domain;
  }
  EXPECT_EQ(autil_initialize(0, 0, 0, 1, nullptr), 0);
  // Nothing of a refused vocabulary is visible, not even its good names.
  auto run = RunScript("unclashed_name()");
  EXPECT_EQ(run.reported, "MIRL error 3: unknown function: unclashed_name (at t.mirl:1)\n");
  EXPECT_EQ(RunScript("print(probe(), ANSWER)").printed, "0 42\n");
}

TEST_F(MirlVocabulary, ArgumentsAreReadWithEveryCall) {
  auto run = RunScript("n = probe(\"t\", 2.5, nil, true, [1], &v, print, 7)\nprint(n)");
  ASSERT_EQ(run.status, 0) << run.reported;
  EXPECT_EQ(run.printed, "8\n");
  EXPECT_EQ(seen.types, (std::vector<int>{AvalString, AvalReal, AvalNil, AvalBoolean, AvalList,
                                          AvalSymbol, AprgFunction, AvalInteger}));
  EXPECT_EQ(seen.ints, (std::vector<int>{-999, -999, -999, 1, -999, -999, -999, 7}));
  EXPECT_TRUE(seen.parm_calls_agree);
  EXPECT_EQ(seen.text0, "t");
  EXPECT_EQ(seen.optional2, "dflt");  // nil is not a text

  RunScript("probe(5, 6, \"given\")");
  EXPECT_EQ(seen.text0, "<none>");
  EXPECT_EQ(seen.optional2, "given");
  // Outside a call there are no arguments.
  EXPECT_EQ(arun_num_parm(), 0);
  EXPECT_EQ(arun_peek_parm(0), AvalNone);
}

TEST_F(MirlVocabulary, HandlersReenterTheRuntime) {
  auto run = RunScript(
      "function on_text(text) {\n"
      "  probe(text, 1)\n"
      "  print(\"handled\", text)\n"
      "}\n"
      "r = call_handler(on_text, \"hello\")\n"
      "print(r)\n");
  ASSERT_EQ(run.status, 0) << run.reported;
  EXPECT_EQ(run.printed, "handled hello\n1\n");
  EXPECT_EQ(seen.call_op_result, 1);
  // The outer call's arguments are its own again once the handler is done.
  EXPECT_EQ(seen.after_call, "hello");
}

TEST_F(MirlVocabulary, AnErrorInAHandlerReturnsToTheLibraryCode) {
  auto run = RunScript(
      "function on_text(text) {\n"
      "  print(\"in handler\")\n"
      "  fail(4)\n"
      "  print(\"not reached\")\n"
      "}\n"
      "call_handler(on_text, \"hi\")\n"
      "print(\"not reached either\")\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.printed, "in handler\n");
  EXPECT_EQ(seen.call_op_result, 0);
  EXPECT_EQ(seen.flag_after_call, 1);
  EXPECT_EQ(seen.after_call, "hi");
  EXPECT_EQ(run.reported, "MIRL error 4: bad value: argument 1 (at t.mirl:3 in on_text)\n");
}

TEST_F(MirlVocabulary, SetValueWritesTheCallersVariable) {
  auto run = RunScript(
      "function f() {\n"
      "  set_var(&k, 7)\n"
      "  set_var(&g, \"changed\")\n"
      "  return k\n"
      "}\n"
      "g = \"global\"\n"
      "print(f(), g)\n"
      "set_var(&top, [1])\n"
      "print(top, set_var(1, 2))\n"
      "print(k)\n");
  EXPECT_EQ(run.printed, "7 changed\n[1] 0\n");
  EXPECT_EQ(run.reported, "MIRL error 2: undefined variable: k (at t.mirl:10)\n");
}

TEST_F(MirlVocabulary, LibraryCallsScriptFunctionsAfterTheRun) {
  auto run = RunScript(
      "prefix = \"got \"\n"
      "function label(x) { return concat(prefix, x) }\n"
      "function on_message(text) { print(\"message\", text) }\n"
      "keep(on_message)\n");
  ASSERT_EQ(run.status, 0) << run.reported;

  MIRLValue* argument = aval_create_raw_integer(5);
  MIRLValue* result = AvalTrue;
  EXPECT_EQ(autil_call(AdbgVoc, "label", &result, 1, argument), 1);
  EXPECT_STREQ(aval_value_data(result), "got 5");
  aval_free_value(result);
  EXPECT_EQ(autil_call(AdbgVoc, "probe", &result, 2, argument, argument), 1);
  EXPECT_EQ(seen.count, 2);
  aval_free_value(result);
  for (const char* name : {"", "missing"}) {
    EXPECT_EQ(autil_call(AdbgVoc, name, &result, 0), 0);
    EXPECT_EQ(result, nullptr);
  }
  EXPECT_EQ(autil_call(nullptr, "label", &result, 1, argument), 0);
  EXPECT_EQ(AerrFlag, 0);
  // An error inside the called function stays pending; nothing is returned.
  EXPECT_EQ(autil_call(AdbgVoc, "label", &result, 2, argument, argument), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(AerrFlag, 1);
  {
    mirl_test::ReportCapture capture;
    aerr_report();
    EXPECT_EQ(capture.Text(), "MIRL error 5: too many arguments: label\n");
  }

  // The kept handler outlives its run and the globals of it.
  ASSERT_NE(mirl_test::kept, nullptr);
  RunScript("");
  mirl_test::ReportCapture capture;
  std::FILE* printed = std::tmpfile();
  mirl::SetPrintStream(printed);
  arun_push_temp(mirl_test::kept);
  arun_push_temp(argument);
  EXPECT_EQ(arun_call_op(ArunOpCall, 2), 1);
  arun_push_temp(argument);
  EXPECT_EQ(arun_call_op(ArunOpCall, 1), 0);  // not a function
  mirl::SetPrintStream(nullptr);
  std::rewind(printed);
  char line[64] = {};
  EXPECT_NE(std::fgets(line, sizeof line, printed), nullptr);
  EXPECT_STREQ(line, "message 5\n");
  std::fclose(printed);
  EXPECT_EQ(AerrFlag, 1);
  aerr_report();
  EXPECT_EQ(capture.Text(), "MIRL error 4: not a function\n");
  aval_free_value(argument);
}

}  // namespace
