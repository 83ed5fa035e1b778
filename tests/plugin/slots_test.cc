// The interface objects as the library registers them: found by name (the
// registrars run in a static build too), their operations in the order of
// their tables, slot by slot, and what a few of them do.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "plugin_manager.h"
#include "varn_plugin.h"

namespace {

// The slot of a virtual operation, from its member pointer: in this ABI
// the pointer holds 1 + the operation's byte offset in the table, and the
// virtual destructor takes the table's first two entries.
template <typename Member>
long SlotOf(Member member) {
  static_assert(sizeof(Member) == 2 * sizeof(std::uintptr_t));
  std::uintptr_t words[2];
  std::memcpy(words, &member, sizeof words);
  if ((words[0] & 1) == 0) return -1;  // not a virtual operation
  return static_cast<long>((words[0] - 1) / sizeof(void*)) - 1;
}

TEST(InterfaceObjectTest, BothObjectsAreRegisteredUnderTheirNames) {
  auto* varn = static_cast<VARNInterface*>(plugin_manager::GetInterface("VARN"));
  auto* files = static_cast<RemoteFileInterface*>(plugin_manager::GetInterface("RemoteFile"));
  ASSERT_NE(varn, nullptr);
  ASSERT_NE(files, nullptr);
  EXPECT_EQ(varn->version(), 1004);
  EXPECT_EQ(files->version(), 1001);
  EXPECT_EQ(plugin_manager::GetInterface("varn"), nullptr);
  EXPECT_EQ(plugin_manager::GetInterface(nullptr), nullptr);
  plugin_manager::RegisterInterfaceDuringStartup(nullptr, "Empty");
  EXPECT_EQ(plugin_manager::GetInterface("Empty"), nullptr);
}

TEST(InterfaceObjectTest, EveryVarnSlotIsInItsPlace) {
#define SLOT(n, member) EXPECT_EQ(SlotOf(&VARNInterface::member), n) << #member;
  SLOT(1, version)
  SLOT(2, varn_init)
  SLOT(3, varn_init_varn_line)
  SLOT(4, varn_deinit)
  SLOT(5, varn_set_chan_mode)
  SLOT(6, varn_get_chan_mode)
  SLOT(7, varn_send_quon_cmd)
  SLOT(8, varn_set_callback)
  SLOT(9, varn_invoke)
  SLOT(10, varn_invoke_nonvelor_program)
  SLOT(11, varn_send_msg)
  SLOT(12, varn_recv_msg)
  SLOT(13, varn_recv_data)
  SLOT(14, varn_read_data)
  SLOT(15, varn_wait)
  SLOT(16, reserved_16)
  SLOT(17, varn_set_status)
  SLOT(18, varn_query_status)
  SLOT(19, varn_get_parent_info)
  SLOT(20, varn_query_server_address)
  SLOT(21, varn_connect_server)
  SLOT(22, reserved_22)
  SLOT(23, reserved_23)
  SLOT(24, varn_debug_true)
  SLOT(25, varn_get_error_no)
  SLOT(26, varn_get_error_message)
  SLOT(27, varn_chan_type)
  SLOT(28, reserved_28)
  SLOT(29, varn_is_child_of_daemon)
  SLOT(30, varn_query_varn_handle)
  SLOT(31, varn_query_varn_handle_byname)
  SLOT(32, varn_query_handle_address)
  SLOT(33, varn_query_own_address)
  SLOT(34, varn_send_status_to_daemon)
  SLOT(35, varn_sleep)
  SLOT(36, reserved_36)
  SLOT(37, reserved_37)
  SLOT(38, varn_connect_process)
  SLOT(39, reserved_39)
  SLOT(40, varn_get_query_result)
  SLOT(41, varn_prep_query_result)
  SLOT(42, varn_query_pg_process)
  SLOT(43, reserved_43)
  SLOT(44, reserved_44)
  SLOT(45, varn_fputs)
  SLOT(46, varn_readlineP)
  SLOT(47, varn_file_fclose)
  SLOT(48, varn_file_fopen)
  SLOT(49, varn_start_time)
  SLOT(50, varn_total_time)
  SLOT(51, varn_send_trace_msg)
  SLOT(52, varn_put_msg_in_queue)
  SLOT(53, reserved_53)
  SLOT(54, varn_deinit_entry)
  SLOT(55, varn_fread)
  SLOT(56, varn_fseek)
  SLOT(57, varn_ftell)
  SLOT(58, varn_fwrite)
  SLOT(59, varn_rewind)
  SLOT(60, varn_feof)
  SLOT(61, varn_fgets)
  SLOT(62, varn_dataset_is_merged)
  SLOT(63, varn_dataset_invoke)
  SLOT(64, varn_status_open_session)
  SLOT(65, varn_status_display_de)
  SLOT(66, reserved_66)
  SLOT(67, varn_status_get_varnhandle)
  SLOT(68, varn_dds_invoke)
  SLOT(69, varn_dftool_invoke)
  SLOT(70, varn_instrument_invoke)
  SLOT(71, varn_help_invoke)
  SLOT(72, varn_help_get_handle)
  SLOT(73, varn_help_kill)
  SLOT(74, varn_help_get_version)
  SLOT(75, varn_help_open)
  SLOT(76, varn_help_manual)
  SLOT(77, varn_help_open_url)
  SLOT(78, varn_help_weblinked_error)
  SLOT(79, varn_fopen)
  SLOT(80, varn_fclose)
  SLOT(81, KOnvtMainLoop)
  SLOT(82, varn_kill)
  SLOT(83, varn_status_show_session)
  SLOT(84, varn_truly_recv_data)
  SLOT(85, varn_wait_for_any_from_handle)
  SLOT(86, varn_dds_invoke_with_args)
#undef SLOT
  EXPECT_EQ(SlotOf(&RemoteFileInterface::version), 1);
  EXPECT_EQ(SlotOf(&RemoteFileInterface::fopen), 2);
  EXPECT_EQ(SlotOf(&RemoteFileInterface::fclose), 3);
  EXPECT_EQ(SlotOf(&RemoteFileInterface::fputs), 4);
  EXPECT_EQ(SlotOf(&RemoteFileInterface::readline), 5);
}

TEST(InterfaceObjectTest, ReservedSlotsDoNothingAndOthersForward) {
  auto* varn = static_cast<VARNInterface*>(plugin_manager::GetInterface("VARN"));
  ASSERT_NE(varn, nullptr);
  VarnErrorNo = VARN_E_BAD_HANDLE;
  for (bool reserved :
       {varn->reserved_16(), varn->reserved_22(), varn->reserved_36(), varn->reserved_43(),
        varn->reserved_44(), varn->reserved_53(), varn->reserved_66()}) {
    EXPECT_FALSE(reserved);
  }
  for (int reserved :
       {varn->reserved_23(), varn->reserved_28(), varn->reserved_37(), varn->reserved_39()}) {
    EXPECT_EQ(reserved, 0);
  }
  EXPECT_EQ(varn->varn_get_error_no(), VARN_E_BAD_HANDLE);  // untouched by the reserved slots
  EXPECT_STREQ(varn->varn_get_error_message(VARN_E_BAD_HANDLE),
               varn_get_error_message(VARN_E_BAD_HANDLE));
  EXPECT_EQ(varn->varn_chan_type(), varn_chan_type());
  VarnErrorNo = 0;
}

TEST(InterfaceObjectTest, ReadlineWorksBeforeAnyOtherLineCall) {
  // Not connected by a socket: the file object works on local files.
  char name[] = "/tmp/varn-readline-XXXXXX";
  int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  std::FILE* out = fdopen(fd, "w");
  std::fputs("a first line\nand more\n", out);
  std::fclose(out);
  auto* files = static_cast<RemoteFileInterface*>(plugin_manager::GetInterface("RemoteFile"));
  ASSERT_NE(files, nullptr);
  std::FILE* in = files->fopen(name, "r");
  ASSERT_NE(in, nullptr);
  char* line = nullptr;
  ASSERT_TRUE(files->readline(&line, in));
  EXPECT_STREQ(line, "a first line");
  ASSERT_TRUE(files->readline(&line, in));
  EXPECT_STREQ(line, "and more");
  EXPECT_FALSE(files->readline(&line, in));
  EXPECT_EQ(files->fclose(in), 0);  // as fclose
  std::remove(name);
}

}  // namespace
