// The settings stand-ins (files in the settings directory, environment
// variables winning), the merge setting read through them, and cutting
// texts to whole characters.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "host/settings.h"
#include "services/text_buffer.h"
#include "tests/support/output.h"
#include "varn.h"

namespace varn::testing {
namespace {

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = test_support::TestOutputDir("settings");
    setenv("DRAVO_SETTINGS_DIR", dir_.c_str(), 1);
    for (const char* key : {"VIEWER_BUSY", "USE_DATASET_SERVER", "PLAIN", "QUOTED", "SPACED"}) {
      unsetenv(key);
    }
  }
  void TearDown() override {
    unsetenv("DRAVO_SETTINGS_DIR");
    astr_close_environment();
  }
  void Write(const std::string& name, const std::string& text) {
    std::ofstream(dir_ + "/." + name) << text;
  }
  std::string dir_;
};

TEST_F(SettingsTest, FileLinesCommentsQuotesAndTheFirstOfTwoLines) {
  Write("tool",
        "# comment\n\nPLAIN=one two\nSPACED  =  three  \nQUOTED \"four\"\nPLAIN=later\nEMPTY=\n");
  GuiEnv* env = gui_env_open("tool", 0);
  ASSERT_NE(env, nullptr);
  char value[64];
  EXPECT_EQ(gui_env_get(env, "PLAIN", value, nullptr, sizeof value, 0), 1);
  EXPECT_STREQ(value, "one two");
  EXPECT_EQ(gui_env_get(env, "SPACED", value, nullptr, sizeof value, 0), 1);
  EXPECT_STREQ(value, "three");
  EXPECT_EQ(gui_env_get(env, "QUOTED", value, nullptr, sizeof value, 0), 1);
  EXPECT_STREQ(value, "four");
  EXPECT_EQ(gui_env_get(env, "EMPTY", value, "x", sizeof value, 0), 1);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(gui_env_get(env, "MISSING", value, "fallback", sizeof value, 0), 0);
  EXPECT_STREQ(value, "fallback");
  // Cut to the buffer.
  char small[4];
  EXPECT_EQ(gui_env_get(env, "PLAIN", small, nullptr, sizeof small, 0), 1);
  EXPECT_STREQ(small, "one");
  // The environment wins over the file.
  setenv("PLAIN", "from the environment", 1);
  EXPECT_EQ(gui_env_get(env, "PLAIN", value, nullptr, sizeof value, 0), 1);
  EXPECT_STREQ(value, "from the environment");
  unsetenv("PLAIN");
  gui_env_close(env);
}

TEST_F(SettingsTest, MissingFileAndMissingDirectory) {
  EXPECT_EQ(gui_env_open("nothing_here", 0), nullptr);
  EXPECT_EQ(gui_env_init(), 1);
  const char* home = std::getenv("HOME");
  std::string saved_home = home ? home : "";
  unsetenv("DRAVO_SETTINGS_DIR");
  unsetenv("HOME");
  EXPECT_EQ(gui_env_init(), 0);
  if (home != nullptr) setenv("HOME", saved_home.c_str(), 1);
}

TEST_F(SettingsTest, CurrentEnvironmentSwitchesAndCloses) {
  Write("first", "PLAIN=1\n");
  EXPECT_EQ(astr_get_environment(), nullptr);
  ASSERT_EQ(astr_set_environment("first"), 1);
  EXPECT_STREQ(astr_get_environment(), "first");
  char value[16];
  EXPECT_EQ(astr_environment_string("PLAIN", value, sizeof value), 1);
  EXPECT_STREQ(value, "1");
  // An environment without a file still answers from the environment.
  ASSERT_EQ(astr_set_environment("no_file"), 1);
  EXPECT_EQ(astr_environment_string("PLAIN", value, sizeof value), 0);
  setenv("PLAIN", "2", 1);
  EXPECT_EQ(astr_environment_string("PLAIN", value, sizeof value), 1);
  EXPECT_STREQ(value, "2");
  unsetenv("PLAIN");
  astr_close_environment();
  EXPECT_EQ(astr_get_environment(), nullptr);
  EXPECT_EQ(astr_environment_string("PLAIN", value, sizeof value), 0);
}

// Read from the settings "dravo" once, and the environment in force before
// is in force again afterwards.
TEST_F(SettingsTest, MergeSettingIsReadOnceFromDravoAndTheCurrentEnvironmentIsRestored) {
  Write("dravo", "USE_DATASET_SERVER=yes\n");
  Write("mine", "PLAIN=mine\n");
  astr_set_environment("mine");
  EXPECT_EQ(varn_dataset_is_merged(), 0);
  EXPECT_STREQ(astr_get_environment(), "mine");
  char value[16];
  EXPECT_EQ(astr_environment_string("PLAIN", value, sizeof value), 1);
  Write("dravo", "USE_DATASET_SERVER=no\n");
  EXPECT_EQ(varn_dataset_is_merged(), 0);
}

TEST(CutAtCharacterTest, DropsOnlyAnUnfinishedCharacter) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"abc", "abc"},
      {"ab\xc3", "ab"},                    // first byte of two
      {"ab\xc3\xa9", "ab\xc3\xa9"},        // whole
      {"a\xe2\x82", "a"},                  // two of three
      {"a\xe2\x82\xac", "a\xe2\x82\xac"},  // whole
      {"a\xf0\x9f\x98", "a"},              // three of four
      {"\x80\x80", "\x80\x80"},            // no first byte: left as it is
  };
  for (const Case& c : cases) {
    std::string text = c.in;
    services::CutAtCharacter(text.data());
    EXPECT_STREQ(text.c_str(), c.out) << c.in;
  }
  char buffer[5];
  services::CopyCut(buffer, sizeof buffer, "abc\xc3\xa9");
  EXPECT_STREQ(buffer, "abc");
}

}  // namespace
}  // namespace varn::testing
