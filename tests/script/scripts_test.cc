// Scripts run by the script runner under the real hub, driving real servers:
// the start paths, handlers, waits, deaths, system() and the script errors,
// and every function of the vocabulary.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/launcher.h"
#include "tests/support/output.h"

namespace varn::testing {
namespace {

using test_support::RunProgram;
using test_support::RunResult;

std::string Dir(const std::string& path) { return path.substr(0, path.rfind('/')); }

struct ScriptRun {
  std::vector<std::string> runner_options;  // before the script
  std::vector<std::string> environment;     // NAME=value
  std::vector<std::string> paths = {Dir(VARN_SWEEP_SERVER_PATH), Dir(VARN_MIRLRUN_PATH),
                                    Dir(VARN_SCRIPT_PEER_PATH)};
};

struct ScriptResult {
  int status;       // the runner's exit status, which the hub passes on
  std::string out;  // what the script printed, in order
  std::string log;  // the hub's log, with the script's errors and warnings
};

std::string Contents(const std::string& path) {
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Writes the script into the test's directory and runs it under the hub.
ScriptResult RunScript(const std::string& script, const ScriptRun& run = ScriptRun()) {
  std::string dir = test_support::TestOutputDir("script");
  std::string file = dir + "/test.mirl";
  std::ofstream(file) << script;
  std::vector<std::string> argv = {"/usr/bin/env", "DRAVOHELP_LOG=" + dir + "/help.log",
                                   "DRAVO_SETTINGS_DIR=" + dir};
  argv.insert(argv.end(), run.environment.begin(), run.environment.end());
  argv.push_back(VARN_QUON_PATH);
  for (const std::string& path : run.paths) argv.insert(argv.end(), {"--path", path});
  argv.insert(argv.end(), {VARN_MIRLRUN_PATH, "-o", dir + "/printed.txt"});
  argv.insert(argv.end(), run.runner_options.begin(), run.runner_options.end());
  argv.push_back(file);
  RunResult r = RunProgram(argv, "");
  return {r.status, Contents(dir + "/printed.txt"), r.out + r.err};
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(ScriptTest, ExampleScriptDrivesTwoServersThroughTheHub) {
  std::ifstream in(std::string(VARN_SOURCE_DIR) + "/examples/two_servers.mirl");
  std::string script((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ScriptResult r = RunScript(script);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(Has(r.out,
                  "low band:\n"
                  "  [1] kind 2: sweep 100 Hz .. 10000 Hz, 3 points, corner 10000 Hz\n"
                  "  [1] kind 3: f=100 gain_db=-0.0004 phase_deg=-0.573\n"
                  "  [1] kind 3: f=1000 gain_db=-0.0432 phase_deg=-5.711\n"
                  "  [1] kind 3: f=10000 gain_db=-3.0103 phase_deg=-45.000\n"
                  "  [1] kind 4: 3 rows\n"
                  "ok\n"))
      << r.out;
  EXPECT_TRUE(Has(r.out, "  [2] kind 3: f=100000 gain_db=-14.1497 phase_deg=-78.690\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "  [1] kind 4: 3 points\n3 points\n")) << r.out;
  // Each handler sees its server's death.
  EXPECT_TRUE(Has(r.out, "  [1] kind 7: \n")) << r.out;
  EXPECT_TRUE(Has(r.out, "  [2] kind 7: \n")) << r.out;
  EXPECT_TRUE(Has(r.out, "done\n")) << r.out;
}

TEST(ScriptTest, StartPathsRouteKnownNamesAndUseHostAndArgumentFunction) {
  ScriptRun run;
  // A dataset server of its own, apart from the display server.
  run.environment = {"NEAR_HOST=localhost", "FAR_HOST=faraway", "USE_DATASET_SERVER=Y"};
  run.runner_options = {"-k"};
  ScriptResult r = RunScript(R"(
function with_flag(args) {
  return concat(args, " -v")
}
ds = create_server("dataset", "", "")
print("dataset", send_server_command("who", ds, 1))
kg = create_server("kograph", "", "")
print("kograph", send_server_command("who", kg, 1))
dd = create_server("display", "", "", "-view big")
print("display", send_server_command("args", dd, 1))
p = create_server("varn_test_script_peer", "", "", "serve x", 0, "with_flag")
print("plain", send_server_command("args", p, 1))
near = create_server("varn_test_script_peer", "near", "NEAR_HOST", "serve near", 0, "", true)
print("near", send_server_command("args", near, 1))
far = create_server("varn_test_script_peer", "far", "FAR_HOST", "serve far", 0, "", true)
start_server(far)
print("far running", server_running(far))
start_server(0)
st = create_server("status", "", "")
st2 = create_server("dravosess", "", "")
start_server(st)
start_server(st2)
print("status", query_server_info(st), query_server_info(st2))
he = create_server("help", "", "")
he2 = create_server("dravohelp", "", "")
start_server(he)
start_server(he2)
print("help", query_server_info(he), query_server_info(he2))
nameless = create_server("", "", "", "", 0, "", true)
start_server(nameless)
)",
                             run);
  EXPECT_EQ(r.status, 1) << r.out;  // the far host and the nameless server
  EXPECT_TRUE(Has(r.out, "dataset dravodss ")) << r.out;
  // The dataset launcher shares one instance: kograph reaches the same one.
  std::size_t a = r.out.find("dataset dravodss ");
  std::size_t b = r.out.find("kograph dravodss ");
  ASSERT_NE(b, std::string::npos) << r.out;
  EXPECT_EQ(r.out.substr(a + 8, r.out.find('\n', a) - a - 8),
            r.out.substr(b + 8, r.out.find('\n', b) - b - 8));
  EXPECT_TRUE(Has(r.out, "display -view big\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "plain serve x -v\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "near serve near\n")) << r.out;
  EXPECT_TRUE(Has(r.log, "MIRL error 350: could not invoke program: unknown host faraway"))
      << r.log;
  EXPECT_TRUE(Has(r.out, "far running nil\n")) << r.out;
  // One status session server and one help server, whatever the name.
  std::size_t s = r.out.find("status [");
  ASSERT_NE(s, std::string::npos) << r.out;
  std::string status_line = r.out.substr(s, r.out.find('\n', s) - s);
  std::size_t half = status_line.find("] [");
  ASSERT_NE(half, std::string::npos) << status_line;
  EXPECT_EQ(status_line.substr(7, half - 6), status_line.substr(half + 2)) << status_line;
  EXPECT_TRUE(Has(status_line, "dravosess")) << status_line;
  std::size_t h = r.out.find("help [");
  ASSERT_NE(h, std::string::npos) << r.out;
  std::string help_line = r.out.substr(h, r.out.find('\n', h) - h);
  half = help_line.find("] [");
  EXPECT_EQ(help_line.substr(5, half - 4), help_line.substr(half + 2)) << help_line;
  EXPECT_TRUE(Has(r.log, "MIRL error 353: no server name")) << r.log;
  EXPECT_FALSE(Has(r.log, "MIRL error 355")) << r.log;  // slot 0 says nothing
}

TEST(ScriptTest, AServerReachedThroughAnotherIsConnectedThroughItAndNeverStarted) {
  ScriptRun run;
  run.runner_options = {"-k"};
  ScriptResult r = RunScript(R"(
gate = create_server("varn_test_script_peer", "gate", "", "serve")
print("gate", send_server_command("start sweep_server", gate, 1))
inner = create_server("sweep_server", "", gate)
print("inner", send_server_command("corner 500", inner, 1))
print("inner info", query_server_info(inner))
# A via server that is not running is started first. The hub names the
# one sweep server there is, so both records reach the same process.
other = create_server("varn_test_script_peer", "other", "", "serve", 0, "", true)
same = create_server("sweep_server", "", other)
print("same", send_server_command("corner 700", same, 1), query_server_info(same))
print("other running", server_running(other))
lost = create_server("no_such_server", "", other)
send_server_command("help", lost, 1)
)",
                             run);
  EXPECT_EQ(r.status, 1) << r.log;
  EXPECT_TRUE(Has(r.out, "gate started\ninner corner set\ninner info [\"")) << r.out;
  EXPECT_TRUE(Has(r.out, "\", \"sweep_server\"]\n")) << r.out;
  std::size_t info = r.out.find("inner info ");
  ASSERT_NE(info, std::string::npos) << r.out;
  std::string inner_info = r.out.substr(info + 11, r.out.find('\n', info) - info - 11);
  EXPECT_TRUE(Has(r.out, "same corner set " + inner_info + "\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "other running 1\n")) << r.out;
  EXPECT_TRUE(Has(r.log, "MIRL error 352: varn error: 27, Specified server not found.")) << r.log;
  // The gate started the sweep server; the script started none itself.
  std::size_t started = r.log.find("started sweep_server[");
  ASSERT_NE(started, std::string::npos) << r.log;
  EXPECT_TRUE(
      Has(r.log.substr(started, r.log.find('\n', started) - started), "for varn_test_script_peer["))
      << r.log;
  EXPECT_EQ(r.log.find("started sweep_server[", started + 1), std::string::npos) << r.log;
}

TEST(ScriptTest, AProgramThatNeverBecomesIdleFailsAfterItsPolls) {
  ScriptRun run;
  run.runner_options = {"-t", "2"};  // 3 polls a second apart
  ScriptResult r = RunScript(R"(
b = create_server("varn_test_script_peer", "", "", "busy")
start_server(b)
print("not reached")
)",
                             run);
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(Has(r.log, "MIRL error 350: could not invoke program (at ")) << r.log;
  EXPECT_FALSE(Has(r.out, "not reached")) << r.out;
}

TEST(ScriptTest, HandlersSeeEveryKindInOrderAndOnlyTheTopOneIsCalled) {
  ScriptRun run;
  run.runner_options = {"-k"};
  ScriptResult r = RunScript(R"(
function first(server, kind, text) {
  print("first", server, kind, text)
}
function second(server, kind, text) {
  print("second", server, kind, text)
}
function broken(server, kind, text) {
  print("broken", kind, text)
  no_such_function()
}
s = create_server("varn_test_script_peer", "", "", "serve")
push_message_handler(first, s)
print("reply", send_server_command("talk", s, 1))
push_message_handler(second, s)
print("reply", send_server_command("ping", s, 1))
pop_message_handler(s)
send_server_command("stream", s)
text = read_server_wait(s, &kind)
print("read", kind, text)
text = read_server_wait(s, &kind)
print("read", kind, text)
text = read_server_wait(s, &kind)
print("read", kind, text)
push_message_handler(broken, s)
print("reply", send_server_command("talk", s, 1))
)",
                             run);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(Has(r.out,
                  "first 1 0 question\n"
                  "first 1 2 block\n"
                  "first 1 3 a\n"
                  "first 1 3 b\n"
                  "first 1 3 c\n"
                  "first 1 4 end\n"
                  "first 1 1 loose\n"
                  "reply talked cmd=DONE: block=DONE:\n"
                  "reply pong\n"))
      << r.out;
  EXPECT_FALSE(Has(r.out, "second")) << r.out;  // ping's DONE ends the wait itself
  EXPECT_TRUE(Has(r.out,
                  "first 1 2 rows\nfirst 1 3 r1\nfirst 1 3 r2\nfirst 1 4 2 rows\n"
                  "read 2 rows\n"
                  "read 5 streamed\n"
                  "read -1 \n"))
      << r.out;
  // A handler that fails: its error and the warning are shown, the command
  // is answered with ERROR, the block and the rest go on.
  EXPECT_TRUE(Has(r.out, "broken 0 question\n")) << r.out;
  EXPECT_TRUE(Has(r.log, "MIRL error 3: unknown function: no_such_function")) << r.log;
  EXPECT_TRUE(Has(r.log,
                  "MIRL warning 358: error receiving server message: "
                  "varn_test_script_peer\n"))
      << r.log;
  EXPECT_TRUE(Has(r.out, "reply talked cmd=ERROR: block=")) << r.out;
}

TEST(ScriptTest, AServerThatDiesWhileTheScriptWaitsIsAnErrorAndStartsAgain) {
  ScriptRun run;
  run.runner_options = {"-k"};
  ScriptResult r = RunScript(R"(
s = create_server("varn_test_script_peer", "", "", "serve")
print("reply", send_server_command("die", s, 1))
print("again", send_server_command("ping", s, 1))
)",
                             run);
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(Has(r.log, "MIRL error 352: varn error: 13, The connection has been closed."))
      << r.log;
  EXPECT_TRUE(Has(r.out, "again pong\n")) << r.out;
}

TEST(ScriptTest, SystemSplitsItsCommandAndFallsBackToTheShell) {
  std::string dir = test_support::TestOutputDir("programs");
  std::filesystem::create_directories(dir + "/my tools");
  std::filesystem::create_symlink("/bin/echo", dir + "/my tools/say");
  ScriptRun run;
  run.runner_options = {"-k"};
  ScriptResult r = RunScript(R"(
print("plain", system("/bin/echo a  \"b c\"", 0, "", 1))
print("quoted", system("\")" + dir +
                                 R"(/my tools/say\" -v", 0, "", 1))
print("shell", system("set -- x y z; echo $#", 0, "", 1))
print("handle", system("/bin/true"))
system("ls > out")
system()
)",
                             run);
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(Has(r.out, "plain a b c\n\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "quoted -v\n\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "shell 3\n\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "handle ")) << r.out;
  EXPECT_TRUE(Has(r.log, "MIRL error 69: cannot redirect or use pipes in system(): ls > out"))
      << r.log;
  EXPECT_TRUE(Has(r.log, "MIRL error 9: Value is null.")) << r.log;
}

TEST(ScriptTest, WithoutTheStatusServerOrTheShellStartsFailWithTheirReasons) {
  // A hub that finds the help server and the test server only.
  std::string dir = test_support::TestOutputDir("bin");
  std::filesystem::create_symlink(Dir(VARN_MIRLRUN_PATH) + "/dravohelp", dir + "/dravohelp");
  ScriptRun run;
  run.paths = {dir, Dir(VARN_SCRIPT_PEER_PATH)};
  run.runner_options = {"-k"};
  ScriptResult r = RunScript(R"(
st = create_server("status", "", "")
send_server_command("ping", st)
system("no_such_program_here with args")
print("end")
)",
                             run);
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(Has(r.log,
                  "MIRL error 350: could not invoke program: Unable to start status "
                  "server."))
      << r.log;
  EXPECT_TRUE(Has(r.log,
                  "MIRL error 68: could not invoke program: no_such_program_here with "
                  "args "))
      << r.log;
  EXPECT_TRUE(Has(r.out, "end\n")) << r.out;
}

TEST(ScriptTest, ScriptErrorsCarryDomainCodeAndText) {
  ScriptRun run;
  run.runner_options = {"-k"};
  ScriptResult r = RunScript(R"(
s = create_server("varn_test_script_peer", "", "", "serve")
send_server_command("fail bad input", s, 1)
print("last", get_done_msg())
send_server_command("ping", s)
send_server_command("ping", s)
print("waited", wait_for_done(s))
send_server_kill(99)
n = create_server("never_started", "", "")
send_server_interrupt(n)
clear_server(98)
h = system("/bin/sleep 3")
r = register_server("sleeper", "an id", h)
print("registered", r, register_server("sleeper", "", h), register_server("bogus", "", 99))
send_server_kill(r)
create_server("x", "", [1])
mirl_open_url("")
print("end")
)",
                             run);
  EXPECT_EQ(r.status, 1) << r.out;
  const char* expected[] = {
      "MIRL error 354: server error: bad input",
      "MIRL error 356: server is busy: varn_test_script_peer",
      "MIRL error 355: no server set",
      "MIRL error 357: server not running: never_started",
      "MIRL error 357: server not running: sleeper",
      "MIRL error 304: wrong parameter type: argument 2",
      "MIRL error 343: expecting non-null string: argument 0",
  };
  std::size_t at = 0;
  for (const char* line : expected) {
    std::size_t found = r.log.find(line, at);
    EXPECT_NE(found, std::string::npos) << line << "\n" << r.log;
    if (found != std::string::npos) at = found;
  }
  EXPECT_TRUE(Has(r.out, "last bad input\n")) << r.out;
  // A registered process keeps its record; an unknown handle gives none.
  std::size_t at_registered = r.out.find("registered ");
  ASSERT_NE(at_registered, std::string::npos) << r.out;
  std::istringstream words(r.out.substr(at_registered + 11));
  int first = 0, again = 0, bogus = 0;
  words >> first >> again >> bogus;
  EXPECT_GT(first, 0);
  EXPECT_EQ(again, first);
  EXPECT_EQ(bogus, -1);
  EXPECT_TRUE(Has(r.out, "waited pong\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "end\n")) << r.out;
}

TEST(ScriptTest, EveryOtherFunctionOfTheVocabularyWorksThroughTheHub) {
  ScriptResult r = RunScript(R"(
s = create_server("varn_test_script_peer", "", "", "serve")
print("running before", server_running(s))
start_server(s)
print("running", server_running(s))
print("status", query_server_status(s))
address = query_server_address(s)
info = query_server_info(s)
print("info", info)
again = connect_server(address)
print("connect same", again)
print("connect none", connect_server("1@nowhere"))
print("handles", query_all_server_handles())
print("parms", set_server_parms(s, "serve changed"), set_server_parms(77, "x"))
print("args", send_server_command("args", s, 1))
send_server_data("some data", s)
send_server_error("an error", s)
print("done sent", send_server_done(s, "thanks"))
send_server_interrupt(s, "stop")
clear_server(s)
print("trace", tracepoint("a trace line"))
session = open_status_session()
print("status text", send_status_text(session, 0, "step 1"), send_status_text(session, 1, "a warning"))
print("weblinked", weblinked_error("E42"))
mirl_open_url("https://example.invalid/manual")
byname = create_server("varn_test_script_peer", "byname", "", "", 0, "", true)
connect_server_by_name(byname)
print("by name", query_server_status(byname))
print("delete", delete_server(byname), delete_server(byname))
send_server_kill(s)
print("killed", server_running(s))
print("end")
)");
  EXPECT_EQ(r.status, 1) << r.out;  // deleting a deleted server
  EXPECT_TRUE(Has(r.out, "running before nil\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "running 1\nstatus 1\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "info [\"")) << r.out;
  EXPECT_TRUE(Has(r.out, "\", \"varn_test_script_peer\"]\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "connect same 1\nconnect none -1\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "handles [")) << r.out;
  EXPECT_TRUE(Has(r.out, "parms true false\n")) << r.out;
  // The arguments changed after the start; the running server keeps its own.
  EXPECT_TRUE(Has(r.out, "args serve\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "done sent true\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "trace true\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "status text true true\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "weblinked true\n")) << r.out;
  EXPECT_TRUE(Has(r.out, "by name 1\n")) << r.out;
  EXPECT_TRUE(Has(r.log, "MIRL error 355: no server set")) << r.log;
  EXPECT_FALSE(Has(r.out, "end\n")) << r.out;
}

TEST(ScriptTest, InDebugModeNothingIsAwaitedAndNoServerStaysBusy) {
  // No hub: what the script sends is written as lines, nothing answers.
  std::string dir = test_support::TestOutputDir("debug");
  std::ofstream(dir + "/test.mirl") << R"(
s = create_server("sweep_server", "", "")
print("reply", send_server_command("help", s))
print("waited", wait_for_done(s))
print("again", send_server_command("help", s, 1))
print("read", read_server_wait(s, &k), k)
)";
  RunResult r = RunProgram({VARN_MIRLRUN_PATH, "-quon_debug", dir + "/test.mirl"}, "", dir);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Has(r.out, "CMD help\nreply \nwaited \nCMD help\nagain \nread  -1\n")) << r.out;
}

}  // namespace
}  // namespace varn::testing
