// Where the tests put the files they make: reports, logs, working and
// file-root directories. Everything goes under the build tree, one
// directory per test, so that tests running side by side never share a
// file and what a failed test left can be looked at afterwards.
#ifndef VARN_TESTS_SUPPORT_OUTPUT_H_
#define VARN_TESTS_SUPPORT_OUTPUT_H_

#include <string>

namespace varn::test_support {

// A new, empty directory `tag` inside the running test's own directory
// (whatever was there from an earlier run is removed). Canonical path.
std::string TestOutputDir(const std::string& tag);

}  // namespace varn::test_support

#endif  // VARN_TESTS_SUPPORT_OUTPUT_H_
