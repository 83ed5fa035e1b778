// The shared library as its users load it: the internal names are hidden,
// and exported data and functions work through the loader. (That every
// name of varn.h is exported, and nothing else, is checked on the built
// library by scripts/check-tree.sh.)
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "varn.h"

extern "C" int varn_header_c_check(void);

namespace {

// Internal helpers, host stand-ins and the wire module stay hidden.
constexpr const char* kHidden[] = {
    "_ZN4varn4core5StateEv",
    "_ZN4varn4core11ActiveCountEv",
    "_ZN4varn4core10FileAnswerEiPKcm",
    "_ZN4varn4wire12CategoryWordEi",
    "gsl_strcmp",
    "varnP_find_disabled_entry",
    "varnP_find_enabled_entry",
};

class ExportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    handle_ = dlopen(VARN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle_, nullptr) << dlerror();
  }
  void TearDown() override {
    if (handle_ != nullptr) dlclose(handle_);
  }
  void* handle_ = nullptr;
};

TEST_F(ExportsTest, InternalNamesAreHidden) {
  for (const char* name : kHidden) EXPECT_EQ(dlsym(handle_, name), nullptr) << name;
}

TEST_F(ExportsTest, ExportedDataAndFunctionsWorkThroughTheLoader) {
  auto* chan_type = static_cast<int*>(dlsym(handle_, "VarnChanType"));
  ASSERT_NE(chan_type, nullptr);
  EXPECT_EQ(*chan_type, VARN_CHAN_STANDALONE);

  using Message = const char* (*)(int);
  auto message = reinterpret_cast<Message>(dlsym(handle_, "varn_get_error_message"));
  ASSERT_NE(message, nullptr);
  EXPECT_STREQ(message(VARN_E_NONE), "No error.");
}

TEST(PublicHeaderTest, CompilesAndWorksAsC) { EXPECT_EQ(varn_header_c_check(), 1); }

}  // namespace
