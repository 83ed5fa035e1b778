// The shared library as its users load it: the exported names are there,
// the internal ones are not.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "varn.h"

extern "C" int varn_header_c_check(void);

namespace {

// Every name that varn.h declares, in the header's order; each one must be
// implemented and exported.
// clang-format off
constexpr const char* kExported[] = {
    // exported data
    "VarnMessage", "VarnErrorNo", "VarnStatus", "VarnChanType", "VarnChanMode", "VarnIntrSignal",
    "VarnSigusr1Count", "VarnSigusr1Caught", "VarnSleepSecond", "VarnRecvedQuonStatusIdle",
    "IfDetachProtocol",
    // library state and the process entry table
    "varnP_get_new_varnHandle", "varnP_find_entry_exact", "varnP_deinit_entry",
    "varn_deinit_entry", "varn_num_chan", "varn_query_varn_handle",
    "varn_query_varn_handle_byname", "varn_query_handle_address", "varn_chan_type",
    "varn_get_chan_mode", "varn_is_child_of_daemon", "varn_get_parent_info", "varn_if_asciionly",
    "varnP_find_file_entry",
    // errors
    "varn_get_error_no", "varn_get_error_message",
    // initialisation and shutdown
    "varn_init", "varn_deinit", "varn_init_varn_line", "varn_no_memory_msg", "varn_chdir",
    // utilities
    "varn_util_int_to_category", "varn_util_category_to_int", "varn_util_status_string_to_code",
    "varn_util_compress_args", "varn_util_strcpy", "varn_util_strlen", "varn_util_sleep",
    "varn_util_hold_sigusr1", "varn_util_release_sigusr1", "varn_util_sigaction",
    // packet output and DATA batching
    "varn_send_init", "varn_send_packet", "varn_send_packet_signal", "varnP_write_packet",
    "write_file_win", "varn_WriteFile", "varn_send", "varnP_data_batch_add",
    "varnP_data_batch_flush", "varnP_data_batch_open", "varnP_data_batch_reset",
    // input thread
    "startQuoninThread2", "varnP_start_error_thread", "varnP_take_packet",
    "varnP_has_messages_waiting", "varn_process_one_message", "read_file_win", "varn_ReadFile",
    "varn_recv", "varn_post_quonin_msg", "varn_remove_quonin_msg", "varn_queueMsgCount",
    // message queue and the out-of-band lane
    "varn_queue_init", "varn_queue_deinit", "varn_queue_put_msg", "varn_queue_get_msg",
    "varn_queue_get_outband_msg", "varn_queue_has_msg", "varn_queue_flush_queue",
    "varn_queue_outband_on", "varn_queue_set_outband", "varn_queue_reset_outband",
    "varn_queue_is_outband_chan", "varn_queue_get_outband", "varn_queue_set_waitcat",
    "varn_queue_free_waitcat", "varn_queue_is_signal_msg", "varn_queue_get_signal_msg",
    // packet input and parsing
    "varn_recv_init", "varn_recv_read_and_parse_message", "varn_recv_parse_message",
    "varn_parse_message", "varn_recv_find_entry_exact", "varn_receive_read_data",
    "varn_recv_read_data", "varn_recv_read_data_from_VarnInStreamData",
    "varn_recv_intr_signal_handler",
    // protocol
    "varn_send_send_msg", "varnP_send_framed",
    // messaging
    "varn_send_msg", "varn_set_status", "varn_set_callback", "varnP_set_callback",
    "varnP_call_callback", "varn_kill", "varn_send_quon_cmd", "varn_set_chan_mode",
    "varn_send_status_to_daemon", "varn_send_trace_msg", "varn_put_msg_in_queue", "varn_wait",
    "varn_wait_for_any_from_handle", "varn_recv_msg_len_new", "varn_recv_msg_len",
    "varn_recv_msg", "varn_recv_data", "varn_truly_recv_data", "varn_read_data",
    "varn_set_immediate_intr_kill_mode", "KOnvtMainLoop", "KOMainLoop", "KOnvtAccept",
    "varn_readline", "varn_readlineP", "varn_writeline", "varn_start_time", "varn_elapsed_time",
    "varn_total_time", "varn_sleep",
    // process invocation
    "varn_invoke", "varn_invoke_ex", "varn_invoke_nonvelor_program", "varn_wait_until_invoked",
    "varnP_invoke_entry", "varnP_invoke_entry_ex", "varnP_reinvoke_process",
    "varn_send_serial_protocol_setup_after_reinvoke", "varnP_enable_server_protocal",
    "varnP_disable_server_protocal", "varnP_notify", "varnP_disconnect_process",
    // connections and queries
    "varn_connect_process", "varn_connect_server", "varnP_is_connected", "varn_query_pg_process",
    "varn_prep_query_result", "varn_get_query_result", "varn_query_server_address",
    "varn_query_status", "varn_query_own_address",
    // debug mode
    "varn_debug_true", "varn_debug_get_message_str", "varn_debug_parse_message",
    "varn_debug_save_data", "varn_debug_read_data", "varn_debug_send_message",
    "varn_debug_invoke_entry", "varn_debug_query_status",
};
// clang-format on

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

TEST_F(ExportsTest, InterfaceNamesAreFound) {
  for (const char* name : kExported) EXPECT_NE(dlsym(handle_, name), nullptr) << name;
}

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
