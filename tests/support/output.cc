#include "tests/support/output.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace varn::test_support {

std::string TestOutputDir(const std::string& tag) {
  namespace fs = std::filesystem;
  const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = test != nullptr ? std::string(test->test_suite_name()) + "." + test->name()
                                     : std::string("no-test");
  // Parameterised tests have slashes in their names.
  for (char& c : name) {
    if (c == '/') c = '_';
  }
  fs::path dir = fs::path(VARN_TEST_OUTPUT_DIR) / name / tag;
  fs::remove_all(dir);
  fs::create_directories(dir);
  return fs::canonical(dir).string();
}

}  // namespace varn::test_support
