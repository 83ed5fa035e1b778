// The status, help and launcher calls through the real hub, against the
// project's service programs. The client scenario runs as the hub's first
// client; the status server's output, the help log and the settings live in
// the test's own directory.
#include <gtest/gtest.h>

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

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

int Count(const std::string& text, const std::string& part) {
  int n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

struct HubRun {
  std::string dir;     // the test's directory: settings, logs
  std::string report;  // what the scenario saw
  std::string err;     // the hub's log: the programs' error and standard output
  std::string status_output() const { return ReadFile(dir + "/status.txt"); }
  std::string help_log() const { return ReadFile(dir + "/help.log"); }
};

struct Options {
  std::vector<std::string> environment;  // NAME=value
  bool tools = true;                     // the hub finds the service programs
  bool settings_dir = true;              // DRAVO_SETTINGS_DIR names the test's directory
  std::string help_settings;             // contents of the settings file ".dravohelp"
  std::string dravo_settings;            // contents of the settings file ".dravo"
};

// Runs a scenario of the client under the hub. The environment is the
// test's own: no setting of the person running the tests leaks in.
HubRun UnderHub(const std::string& mode, const Options& options = {}) {
  HubRun run;
  run.dir = test_support::TestOutputDir(mode);
  if (!options.help_settings.empty()) WriteFile(run.dir + "/.dravohelp", options.help_settings);
  if (!options.dravo_settings.empty()) WriteFile(run.dir + "/.dravo", options.dravo_settings);
  std::vector<std::string> argv = {"env", "-u", "USE_DATASET_SERVER", "-u", "VIEWER_BUSY"};
  if (!options.settings_dir) argv.insert(argv.end(), {"-u", "DRAVO_SETTINGS_DIR", "-u", "HOME"});
  if (options.settings_dir) argv.push_back("DRAVO_SETTINGS_DIR=" + run.dir);
  argv.push_back("DRAVOHELP_LOG=" + run.dir + "/help.log");
  argv.push_back("DRAVOSESS_OUTPUT=" + run.dir + "/status.txt");
  argv.insert(argv.end(), options.environment.begin(), options.environment.end());
  argv.push_back(VARN_QUON_PATH);
  if (options.tools) argv.insert(argv.end(), {"--path", VARN_TOOLS_DIR});
  std::string report = run.dir + "/report.txt";
  argv.insert(argv.end(), {VARN_SERVICE_CLIENT_PATH, "-reportfile", report, mode});
  RunResult r = RunProgram(argv, "", "", 40000);
  run.err = r.err;
  run.report = ReadFile(report);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Has(run.report, "\nend\n")) << run.report << r.err;
  return run;
}

// ---- Status sessions -----------------------------------------------------------

TEST(StatusSessionTest, TwoSessionsAndEveryKindOfLineArriveByteForByte) {
  HubRun run = UnderHub("status-sessions");
  const std::string& r = run.report;
  // Before the status server is known, nothing looks for it.
  EXPECT_TRUE(Has(r, "map before 0 err=31\nshow before 0 err=31\n")) << r;
  EXPECT_TRUE(Has(r, "sessions 1 2 handle=")) << r;
  EXPECT_TRUE(Has(r, " name=dravosess\n")) << r;
  EXPECT_TRUE(Has(r, "warning 1\nprogress 1\ninfo 1\nkind3 0 err=24\nlong 1\n")) << r;
  EXPECT_TRUE(Has(r, "show 1\nfront on 1\nfront off 1\nsame handle 1\nlisted 1\nsync 3\nkill 1\n"))
      << r;

  std::string out = run.status_output();
  EXPECT_TRUE(Has(out, "session 1: opened for ")) << out;
  EXPECT_TRUE(Has(out, "  raw CMD from ")) << out;
  EXPECT_TRUE(Has(out, ": \"SS_NEW_STATUS_HANDLE\"\nsession 2: opened for ")) << out;
  EXPECT_TRUE(Has(out, "session 1 warning: disk nearly full | /data | 95%\n")) << out;
  EXPECT_TRUE(Has(out, ": \"DISPLAY_WARNING__DE 1\\017disk nearly full\\017/data\\01795%\"\n"))
      << out;
  // Null texts are empty texts.
  EXPECT_TRUE(Has(out, "session 3 (unknown session) progress: a | c\n")) << out;
  EXPECT_TRUE(Has(out, ": \"DISPLAY_PROGRESS_DE 3\\017a\\017\\017c\"\n")) << out;
  EXPECT_TRUE(Has(out, ": \"DISPLAY_INFO_DE 2\\017done\\017\\017\"\n")) << out;
  // Kind 3 sent nothing.
  EXPECT_FALSE(Has(out, "never")) << out;
  // The long line: cut to 5806 bytes, before the character that did not fit.
  std::string cut = ": \"DISPLAY_INFO_DE 2\\017" + std::string(5806 - 18, 'x') + "\"\n";
  EXPECT_TRUE(Has(out, cut)) << out.substr(0, 2000);
  EXPECT_TRUE(Has(out, ": \"SS_SHOW_SESSION 2\"\n")) << out;
  EXPECT_TRUE(Has(out, "session 2: shown\n")) << out;
  EXPECT_TRUE(Has(out, ": \"MAP_TO_FRONT_ON\"\n")) << out;
  EXPECT_TRUE(Has(out, ": \"MAP_TO_FRONT_OFF\"\n")) << out;
  EXPECT_EQ(Count(out, "  raw DATA "), 7) << out;
}

TEST(StatusSessionTest, SessionRequestPassesOverOtherMessagesAndLeavesThemQueued) {
  HubRun run = UnderHub("status-notify");
  // The status server started by the scenario is found by name and used.
  EXPECT_TRUE(Has(run.report, "invoke 1\nsession 1 handle same=1\n")) << run.report;
  EXPECT_TRUE(Has(run.report, "put back 1 cat=DATA text=SS_SESSION_OPENING 1\nlisted 1\n"))
      << run.report;
}

TEST(StatusSessionTest, ServerKnownUnderAnotherNameIsFoundInTheHubList) {
  HubRun run = UnderHub("status-list");
  EXPECT_TRUE(Has(run.report, "session 1 handle same=1 listed=1\n")) << run.report;
}

TEST(StatusSessionTest, KilledServerIsStartedAgainByTheNextLine) {
  HubRun run = UnderHub("status-restart");
  const std::string& r = run.report;
  EXPECT_TRUE(Has(r, "session 1\nbefore 1\nagain 2\nnotice 1 cat=SRVR_ERR text=signal 9\n")) << r;
  EXPECT_TRUE(Has(r, "state 2\nafter 1\nmoved 1 same handle 1\nsession after 1\n")) << r;
  std::string out = run.status_output();
  EXPECT_EQ(Count(out, ": ready\n"), 2) << out;
  EXPECT_TRUE(Has(out, "session 1 info: before the crash\n")) << out;
  // The new server has not handed out session 1 when the line arrives.
  EXPECT_TRUE(Has(out, "session 1 (unknown session) info: after the restart\n")) << out;
}

TEST(StatusSessionTest, WithoutAServerTheLineGoesToTheErrorStream) {
  Options options;
  options.tools = false;
  HubRun run = UnderHub("status-missing", options);
  EXPECT_TRUE(Has(run.report, "session 0 err=11\ndisplay 0 handle=-1\n")) << run.report;
  EXPECT_TRUE(Has(run.err, "varn_invoke() failed. 11\n")) << run.err;
  EXPECT_TRUE(Has(run.err, "lost line kept on stderr\n")) << run.err;
}

// ---- Help ----------------------------------------------------------------------

TEST(HelpClientTest, EveryRequestReachesTheHelpServerAndItsAnswersAreRead) {
  Options options;
  options.help_settings =
      "# help viewer\nVIEWER_BUSY = \"The viewer is printing; try again soon\"\n";
  HubRun run = UnderHub("help", options);
  const std::string& r = run.report;
  EXPECT_TRUE(Has(r, "kill unknown 1\nfirst 16 No error\n")) << r;
  EXPECT_TRUE(Has(r, "empty 0 busy=-1 help=7 message=unchanged\n")) << r;
  EXPECT_TRUE(Has(r, "invoke 1\nhandle ")) << r;
  EXPECT_TRUE(Has(r, " name=dravohelp\nversion 1\ntitle 1 cat=DONE text=Dravo Help Server ")) << r;
  EXPECT_TRUE(Has(r, "book 1 busy=0 help=7 message=\n")) << r;
  EXPECT_TRUE(Has(r, "any book 1 busy=0 help=7 message=\n")) << r;
  EXPECT_TRUE(Has(r, "manual 1 busy=0 help=7 message=\n")) << r;
  EXPECT_TRUE(Has(r, "no topic 0 busy=1 help=7 message=Requested topic is not available\n")) << r;
  EXPECT_TRUE(Has(r, "no book 0 busy=1 help=7 message=Requested book is not available\n")) << r;
  EXPECT_TRUE(Has(r, "url 1\nurl answer 1 cat=DONE text=\n")) << r;
  EXPECT_TRUE(Has(r, "weblinked 1\nweblinked answer 1 cat=DONE text=\n")) << r;
  EXPECT_TRUE(Has(r,
                  "reopened 1 busy=1 help=7 message=The help viewer was opened to show "
                  "guide/sessions\n"))
      << r;
  EXPECT_TRUE(Has(r,
                  "status busy 1\nwhile busy 0 busy=1 help=7 message=The viewer is printing; "
                  "try again soon\n"))
      << r;
  EXPECT_TRUE(Has(r, "status dead 1\nafter loss 1 busy=0 help=7 message=\nreplaced 1\n")) << r;
  EXPECT_TRUE(Has(r, "invoke again 1 same=1\nkill old 1\n")) << r;
  EXPECT_TRUE(Has(r, "kill 1 handle=-1 alive=0\nrestart 1 new=1\nkill again 1\n")) << r;
  EXPECT_TRUE(Has(r, "kill bad 0 help=13 Cannot kill the Dravo Help Server process\n")) << r;

  // The help log was deleted before the replacement started: it begins with
  // the new server, which was woken and asked once for the topic.
  std::string log = run.help_log();
  EXPECT_FALSE(Has(log, "guide/sessions")) << log;
  EXPECT_TRUE(Has(log, "request DATA \"Invoke\" from ")) << log;
  EXPECT_TRUE(Has(log, "request DATA \"status!Manuals!2\" from ")) << log;
  EXPECT_TRUE(Has(log, "viewer: showing Manuals/status: Status sessions\nanswer DONE \"\"\n"))
      << log;
  // Every request of the first server, exactly as it came, is in the hub's
  // log (the help server's standard output).
  for (const char* request :
       {"request DATA \"intro!guide!2\"", "request DATA \"intro!NULL!1\"",
        "request DATA \"varn!Manuals!2\"", "request DATA \"nosuch!guide!2\"",
        "request CMD \"TITLE\"", "request CMD \"OPEN_URL https://example.org/help\"",
        "request CMD \"WEBLINKED_ERROR TOV\\017470\\017E42\"",
        "viewer: showing the page of error TOV-470: E42"}) {
    EXPECT_TRUE(Has(run.err, request)) << request << "\n" << run.err;
  }
  // The busy viewer was never sent the request.
  EXPECT_EQ(Count(run.err, "request DATA \"intro!guide!2\""), 1) << run.err;
}

TEST(HelpClientTest, BusyViewerWithoutSettingsFileGivesErrorTwo) {
  HubRun run = UnderHub("help-busy");
  EXPECT_TRUE(Has(run.report,
                  "status busy 1\nwhile busy 0 busy=1 help=2 message=Cannot find the "
                  ".dravohelp file\ntext Cannot find the .dravohelp file\n"))
      << run.report;
}

TEST(HelpClientTest, HelpServerThatCannotStartGivesErrorZeroAndTwoAttempts) {
  Options options;
  options.tools = false;
  HubRun run = UnderHub("help-missing", options);
  EXPECT_TRUE(Has(run.report, "invoke 0 help=0 Cannot invoke Dravo Help Server\n")) << run.report;
  // Dead (none known), started in vain, dead again: given up, busy.
  EXPECT_TRUE(Has(run.report, "open 0 busy=1 help=0 message=unchanged\n")) << run.report;
}

TEST(HelpClientTest, SettingsThatCannotBeFoundStopTheRestart) {
  Options options;
  options.tools = false;
  options.settings_dir = false;
  HubRun run = UnderHub("help-missing", options);
  EXPECT_TRUE(Has(run.report, "open 0 busy=1 help=16 message=Unable to initialize env.\n"))
      << run.report;
}

constexpr const char kViewerLost[] =
    "Cannot find Viewer process.  This could be because the process is not running or the "
    "program fails to attach to the running viewer process.";

TEST(HelpClientTest, ErrorMessagesAndSolvedMessages) {
  HubRun run = UnderHub("help-messages");
  const char* kTexts[] = {
      "Cannot invoke Dravo Help Server",
      "Cannot invoke third party process",
      "Cannot find the .dravohelp file",
      "Environment not defined properly",
      "Cannot write to the /tmp directory",
      "Cannot find the hsbook_index file",
      "Cannot open the document",
      "Requested book is not available",
      "Syntax error in the hsbook_index file",
      "Requested topic is not available",
      "Cannot deinit the varn library",
      "Cannot send data back to the application",
      "Cannot send done back to the application",
      "Cannot kill the Dravo Help Server process",
      "Cannot read the file %s",
      kViewerLost,
      "No error",
  };
  std::string expected = "message -1 (null)\n";
  for (int n = 0; n < 17; ++n) expected += "message " + std::to_string(n) + " " + kTexts[n] + "\n";
  expected += "message 17 (null)\n";
  EXPECT_TRUE(Has(run.report, expected)) << run.report;
  EXPECT_TRUE(Has(run.report, "solved Cannot read the file book.idx\nsolved long 511\n"))
      << run.report;
}

// ---- Launchers -----------------------------------------------------------------

TEST(LauncherTest, RunningInstancesAreSharedAndEndedOnesReplaced) {
  HubRun run = UnderHub("launchers");
  const std::string& r = run.report;
  EXPECT_TRUE(
      Has(r, "dftool same=1 address same=1 listed=1\ndftool who 1 cat=DONE text=velordftool "))
      << r;
  EXPECT_TRUE(Has(r, "instrument quit 1 cat=DONE text=bye\ninstrument notice 1 cat=SRVR_ERR")) << r;
  EXPECT_TRUE(Has(r, "instrument restarted 1 new=1 listed=1\n")) << r;
  EXPECT_TRUE(Has(r, "dds adopted=1 listed=1\n")) << r;
  EXPECT_TRUE(Has(r, "dds dead 1\ndds replaced new=1 old alive=0 listed=1\n")) << r;
  EXPECT_TRUE(Has(r, "dds args 1 cat=DONE text=second run\ndds kept 1\n")) << r;
}

TEST(LauncherTest, SeparateDatasetServerWhenTheSettingSaysSo) {
  Options options;
  options.environment = {"USE_DATASET_SERVER=Y"};
  HubRun run = UnderHub("dataset", options);
  const std::string& r = run.report;
  EXPECT_TRUE(Has(r, "merged 0\ndataset who 1 cat=DONE text=dravodss ")) << r;
  EXPECT_TRUE(Has(r, "dataset args 1 cat=DONE text=-scale 2\nsecond same=1\n")) << r;
  EXPECT_TRUE(Has(r, "dataset notice 1 cat=SRVR_ERR")) << r;
  EXPECT_TRUE(Has(r, "dataset restarted new=1\nrestarted args 1 cat=DONE text=\n")) << r;
  EXPECT_TRUE(Has(r, "dds listed 0\n")) << r;
}

TEST(LauncherTest, DisplayServerServesDatasetsWhenMerged) {
  HubRun run = UnderHub("dataset");  // no setting at all
  const std::string& r = run.report;
  EXPECT_TRUE(Has(r, "merged 1\ndataset who 1 cat=DONE text=dravodds ")) << r;
  EXPECT_TRUE(Has(r, "dataset args 1 cat=DONE text=-scale 2\nsecond same=1\n")) << r;
  EXPECT_TRUE(Has(r, "dds same=1 dss listed=0\n")) << r;
}

// Which values of USE_DATASET_SERVER make the dataset server separate. The
// setting comes from the environment or from the settings file ".dravo",
// the environment winning; it is read once per process.
struct MergeCase {
  const char* name;
  const char* environment;  // null: not set
  const char* file;         // contents of .dravo; null: no file
  int merged;
};

void PrintTo(const MergeCase& c, std::ostream* os) { *os << c.name; }

class MergeSettingTest : public ::testing::TestWithParam<MergeCase> {};

TEST_P(MergeSettingTest, DecidesOnceFromTheFirstCharacter) {
  const MergeCase& c = GetParam();
  Options options;
  if (c.environment != nullptr) {
    options.environment = {std::string("USE_DATASET_SERVER=") + c.environment};
  }
  if (c.file != nullptr) options.dravo_settings = c.file;
  HubRun run = UnderHub("merge-setting", options);
  std::string expected = "merged " + std::to_string(c.merged) + " then " + std::to_string(c.merged);
  EXPECT_TRUE(Has(run.report, expected)) << run.report;
}

INSTANTIATE_TEST_SUITE_P(
    Values, MergeSettingTest,
    ::testing::Values(MergeCase{"Y", "Y", nullptr, 0}, MergeCase{"y", "y", nullptr, 0},
                      MergeCase{"yes", "yes", nullptr, 0}, MergeCase{"one", "1", nullptr, 0},
                      MergeCase{"five", "5", nullptr, 0}, MergeCase{"nine", "9", nullptr, 0},
                      MergeCase{"zero", "0", nullptr, 1}, MergeCase{"N", "N", nullptr, 1},
                      MergeCase{"empty", "", nullptr, 1},
                      MergeCase{"blank_first", " Y", nullptr, 1},
                      MergeCase{"missing", nullptr, nullptr, 1},
                      MergeCase{"file_yes", nullptr, "USE_DATASET_SERVER=Y\n", 0},
                      MergeCase{"file_no", nullptr, "# tools\nUSE_DATASET_SERVER = N\n", 1},
                      MergeCase{"environment_wins", "y", "USE_DATASET_SERVER=N\n", 0}),
    [](const ::testing::TestParamInfo<MergeCase>& info) { return std::string(info.param.name); });

// ---- The example ---------------------------------------------------------------

TEST(ServiceDemoTest, StatusLinesAndHelpAnswersAsAUserSeesThem) {
  std::string dir = test_support::TestOutputDir("demo");
  RunResult r = RunProgram({"env", "-u", "DRAVOSESS_OUTPUT", "DRAVOHELP_LOG=" + dir + "/help.log",
                            VARN_QUON_PATH, "--path", VARN_TOOLS_DIR, VARN_SERVICE_DEMO_PATH},
                           "", dir, 40000);
  EXPECT_EQ(r.status, 0) << r.err;
  for (const char* line : {
           "service_demo: status session 1 opened\n",
           "session 1 progress: stage 3 of 3 | 100%\n",
           "session 1 warning: Gain below -40 dB above 1 MHz | results/sweep.txt | line 12\n",
           "service_demo: help on \"intro\" in Manuals: shown\n",
           "service_demo: help on \"nosuch\" in guide: not shown: Requested topic is not "
           "available\n",
           "dravohelp: viewer: showing the web page https://example.org/varn\n",
           "service_demo: done\n",
       }) {
    EXPECT_TRUE(Has(r.err, line)) << line << r.err;
  }
}

}  // namespace
}  // namespace varn::testing
