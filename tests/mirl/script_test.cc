#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "host/mirl/mirl.h"
#include "tests/mirl/test_support.h"

namespace {

using mirl_test::RunScript;

class MirlScript : public ::testing::Test {
 protected:
  void SetUp() override { mirl_test::RegisterTestVocabulary(); }
  // Every value a script made is gone once the next run starts.
  void TearDown() override {
    RunScript("");
    EXPECT_EQ(mirl_live_values(), 0);
    EXPECT_EQ(AerrFlag, 0);
  }
};

TEST_F(MirlScript, PrintWritesEveryKindOfValue) {
  auto run = RunScript(
      "print(1, -2, 2.5, 1e3, \"a \\\"b\\\"\\tc\", true, false, nil)\n"
      "print([1, \"x\", [2.5]], &v, print, ANSWER)\n"
      "print()\n"
      "s = concat(\"n=\", 3, [true]); print(s)\n");
  EXPECT_EQ(run.status, 0) << run.reported;
  EXPECT_EQ(run.printed,
            "1 -2 2.5 1000 a \"b\"\tc true false nil\n"
            "[1, \"x\", [2.5]] &v <function print> 42\n"
            "\n"
            "n=3[true]\n");
}

TEST_F(MirlScript, FunctionsArgumentsAndScopes) {
  auto run = RunScript(
      "print(twice(4), none(), pair(1))  # called before they are defined\n"
      "function twice(x) { return [x, x] }\n"
      "function none() {\n  return\n}\n"
      "function pair(a, b) { return [a, b] }\n"
      "g = 1\n"
      "function scopes() {\n"
      "  g = 2       # an existing global\n"
      "  fresh = 3   # a new local\n"
      "  return fresh\n"
      "}\n"
      "r = scopes(); print(g, r)\n"
      "f = twice; print(f(\"y\"), f)\n"
      "print(fresh)\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.printed, "[4, 4] nil [1, nil]\n2 3\n[\"y\", \"y\"] <function twice>\n");
  EXPECT_EQ(run.reported, "MIRL error 2: undefined variable: fresh (at t.mirl:15)\n");
}

TEST_F(MirlScript, RuntimeErrorsNameTheirCauseAndPlace) {
  struct Case {
    const char* script;
    const char* report;
  } cases[] = {
      {"nope(1)", "MIRL error 3: unknown function: nope (at t.mirl:1)"},
      {"x = 1\nx(2)", "MIRL error 4: not a function: x (at t.mirl:2)"},
      {"function f(a) { return a }\nf(1, 2)", "MIRL error 5: too many arguments: f (at t.mirl:2)"},
      {"function f() {\n  y = 1\n  return z\n}\nf()",
       "MIRL error 2: undefined variable: z (at t.mirl:3 in f)"},
      {"fail(17)", "MIRL error 17: bad value: argument 1 (at t.mirl:1)"},
      {"function f() {\n  explode()\n}\nf()", "MIRL error 9: boom (at t.mirl:2 in f)"},
      {"function f(n) { return f(n) }\nf(1)",
       "MIRL error 6: calls nested too deeply: f (at t.mirl:1 in f)"},
  };
  for (const Case& c : cases) {
    auto run = RunScript(c.script);
    EXPECT_EQ(run.status, 1) << c.script;
    EXPECT_EQ(run.reported, std::string(c.report) + "\n") << c.script;
  }
}

TEST_F(MirlScript, NestedExpressionsInDeepRecursionAreBounded) {
  // Each of the recursive calls nests 100 calls: an error, not a stack overflow.
  std::string inner = "f(n)";
  for (int i = 0; i < 99; ++i) inner = "concat(" + inner + ")";
  auto run = RunScript("function f(n) {\n  return " + inner + "\n}\nf(1)");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.reported, "MIRL error 6: calls nested too deeply: f (at t.mirl:2 in f)\n");
}

TEST_F(MirlScript, AnErrorStopsTheScriptUnlessKeepGoing) {
  const char* script = "print(1)\nfail(3)\nprint(2)\nnope()\nprint(3)\n";
  auto stopped = RunScript(script);
  EXPECT_EQ(stopped.status, 1);
  EXPECT_EQ(stopped.printed, "1\n");
  auto going = RunScript(script, true);
  EXPECT_EQ(going.status, 1);
  EXPECT_EQ(going.printed, "1\n2\n3\n");
  EXPECT_EQ(going.reported,
            "MIRL error 3: bad value: argument 1 (at t.mirl:2)\n"
            "MIRL error 3: unknown function: nope (at t.mirl:4)\n");
}

TEST_F(MirlScript, SyntaxErrorsRunNothing) {
  struct Case {
    const char* script;
    const char* report;
  } cases[] = {
      {"print(1)\nx = \"open\n", "t.mirl:2: unterminated string"},
      {"print(1)\n\nfunction f() {\n  print(2)\n", "t.mirl:5: missing '}' of function 'f'"},
      {"return 1", "t.mirl:1: 'return' outside a function"},
      {"x = \"\\q\"", "t.mirl:1: unknown escape in string"},
      {"x = 1 2", "t.mirl:1: expected the end of the statement, found '2'"},
      {"f(1,\n  2\n  3)", "t.mirl:3: expected ',' or ')', found '3'"},
      {"function f() { function g() {} }",
       "t.mirl:1: functions can be defined only at the top level"},
      {"function f(a, a) {}", "t.mirl:1: parameter 'a' is named twice"},
      {"function f() {}\nfunction f() {}", "t.mirl:2: function 'f' is defined twice"},
      {"x = 99999999999", "t.mirl:1: number out of range"},
      {"x = 1 @", "t.mirl:1: unexpected '@'"},
      {"true = 1", "t.mirl:1: 'true' cannot be used as a variable name"},
  };
  for (const Case& c : cases) {
    auto run = RunScript(c.script);
    EXPECT_EQ(run.status, 2) << c.script;
    EXPECT_EQ(run.printed, "") << c.script;
    EXPECT_EQ(run.reported, std::string(c.report) + "\n") << c.script;
  }
  // Deep nesting is refused by the parser, not by the stack.
  std::string deep = "x = " + std::string(5000, '[') + std::string(5000, ']');
  EXPECT_EQ(RunScript(deep).reported, "t.mirl:1: expression nested too deeply\n");
}

TEST(MirlReport, LineFormats) {
  mirl_test::ReportCapture capture;
  arun_aerr_set("NET", 4, "refused", "host %s port %d", "h", 80);
  arun_aerr_set("NET", 5, "second", nullptr);  // dropped: the first is the cause
  EXPECT_EQ(AerrFlag, 1);
  aerr_add_location();  // no script runs: nothing to add
  aerr_report();
  EXPECT_EQ(AerrFlag, 0);
  aerr_report();  // nothing pending: nothing written
  arun_aerr_set("NET", 6, "", "only detail");
  aerr_report();
  arun_aerr_set("NET", 7, nullptr, nullptr);
  aerr_report();
  aerr_memory_error();
  aerr_report();
  EXPECT_EQ(aerr_process_warning("NET", 8, "slow", nullptr), 1);
  EXPECT_EQ(aerr_process_warning("NET", 9, "slow", "3 s"), 1);
  EXPECT_EQ(AerrFlag, 0);
  EXPECT_EQ(capture.Text(),
            "NET error 4: refused: host h port 80\n"
            "NET error 6: only detail\n"
            "NET error 7\n"
            "MIRL error 1: out of memory\n"
            "NET warning 8: slow\n"
            "NET warning 9: slow: 3 s\n");
}

TEST(MirlFiles, ReadsAFileAndReportsOneItCannotRead) {
  mirl_test::ReportCapture capture;
  mirl::RunOptions options;
  EXPECT_EQ(mirl::RunScriptFile("/nonexistent/x.mirl", options), 2);
  EXPECT_EQ(mirl::RunScriptFile("/", options), 2);
  std::string path = ::testing::TempDir() + "mirl_file_test.mirl";
  std::FILE* file = std::fopen(path.c_str(), "w");
  ASSERT_NE(file, nullptr);
  std::fputs("x = 1\ny = nope\n", file);
  std::fclose(file);
  EXPECT_EQ(mirl::RunScriptFile(path.c_str(), options), 1);
  std::remove(path.c_str());
  EXPECT_EQ(capture.Text(),
            "/nonexistent/x.mirl: cannot read the script\n"
            "/: cannot read the script\n"
            "MIRL error 2: undefined variable: nope (at " +
                path + ":2)\n");
  mirl::RunScriptText("", "empty", options);
  EXPECT_EQ(mirl_live_values(), 0);
}

}  // namespace
