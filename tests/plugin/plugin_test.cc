// A plug-in built apart from the library, loaded into a program the real
// hub started, reaches the library through the interface objects alone:
// it starts a server, has a command answered, and writes and reads a file
// that the hub serves.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/launcher.h"
#include "tests/support/output.h"

namespace varn::testing {
namespace {

std::string Contents(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(PluginTest, APluginTalksToAServerAndToFilesThroughTheObjectsAlone) {
  std::string dir = test_support::TestOutputDir("plugin");
  std::string files = test_support::TestOutputDir("files");
  std::string report = dir + "/report.txt";
  std::string server_dir = std::string(VARN_SWEEP_SERVER_PATH);
  server_dir = server_dir.substr(0, server_dir.rfind('/'));
  test_support::RunResult r = test_support::RunProgram(
      {VARN_QUON_PATH, "--sockets", "--files-root", files, "--path", server_dir,
       VARN_PLUGIN_HOST_PATH, VARN_PLUGIN_PATH, report, "notes.txt"},
      "", dir);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Contents(report),
            "objects 1 1 unknown 0\n"
            "versions 1004 1001\n"
            "init 1\n"
            "reserved 0 0\n"
            "invoke 1\n"
            "send 1\n"
            "wait 1 done=1 text=corner set\n"
            "fopen 1\n"
            "fclose 0\n"
            "readline 1 first line\n"
            "readline 1 second line\n"
            "seek 0\n"
            "fread 6 second tell 17\n"
            "kill 1\n")
      << r.err;
  // The file is the hub's, under its files root.
  EXPECT_EQ(Contents(files + "/notes.txt"), "first line\nsecond line\n");
}

}  // namespace
}  // namespace varn::testing
