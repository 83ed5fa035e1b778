// The process entry table, its active count and lookups, and the remote
// file table.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include "core/library_state.h"
#include "core/remote_file_table.h"
#include "core/rows.h"
#include "varn.h"

namespace {

using varn::core::State;

void FreeRowStrings(VarnEntry& row) {
  for (char** field : {&row.address, &row.local_address, &row.last_data, &row.host, &row.name,
                       &row.args, &row.workdir}) {
    std::free(*field);
  }
}

class EntryTableTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }

  static void Reset() {
    for (VarnEntry& row : VarnMessage) FreeRowStrings(row);
    std::memset(VarnMessage, 0, sizeof(VarnMessage));
    State().active_count = -1;
    State().opt_parentname = nullptr;
    State().opt_parentid = nullptr;
    VarnErrorNo = 0;
    VarnChanType = VARN_CHAN_STANDALONE;
  }

  static void SetRow(int h, unsigned state, const char* address, const char* name = nullptr) {
    VarnMessage[h].state = state;
    ASSERT_EQ(varn_util_strcpy(&VarnMessage[h].address, address), 1);
    ASSERT_EQ(varn_util_strcpy(&VarnMessage[h].name, name), 1);
  }
};

TEST_F(EntryTableTest, ActiveCountDefaultsAndClamps) {
  EXPECT_TRUE(varn::core::ValidHandle(39));
  EXPECT_FALSE(varn::core::ValidHandle(40));
  EXPECT_FALSE(varn::core::ValidHandle(-1));
  EXPECT_EQ(State().active_count, 40);  // the first reader writes the default back

  EXPECT_EQ(varn_num_chan(10), 40);
  EXPECT_EQ(varn_num_chan(-5), 40);  // only -1 means "just read"
  EXPECT_EQ(varn_num_chan(300), 256);
  EXPECT_EQ(varn_num_chan(-1), 256);
  EXPECT_EQ(varn_num_chan(100), 100);
  EXPECT_EQ(varn_num_chan(-1), 100);
  EXPECT_TRUE(varn::core::ValidHandle(99));
  EXPECT_FALSE(varn::core::ValidHandle(100));
}

TEST_F(EntryTableTest, DeinitEntryChecksRangeAgainstActiveCount) {
  EXPECT_EQ(varn_deinit_entry(40), 0);
  EXPECT_EQ(varn_deinit_entry(-1), 0);
  EXPECT_EQ(varn_deinit_entry(39), 1);
  varn_num_chan(41);
  EXPECT_EQ(varn_deinit_entry(40), 1);
}

TEST_F(EntryTableTest, AllocationTakesLowestFreeRowWithinActiveCount) {
  int h = 99;
  ASSERT_EQ(varnP_get_new_varnHandle(&h), 1);
  EXPECT_EQ(h, 0);
  EXPECT_EQ(VarnMessage[0].state, ENTRY_FREE);  // not marked; the caller fills it

  for (int i = 0; i < 40; ++i) VarnMessage[i].state = ENTRY_ACTIVE;
  VarnMessage[7].state = ENTRY_FREE;
  VarnMessage[3].state = ENTRY_FREE;
  ASSERT_EQ(varnP_get_new_varnHandle(&h), 1);
  EXPECT_EQ(h, 3);

  // Full: free rows beyond the active count do not count.
  VarnMessage[3].state = ENTRY_EXITED;
  VarnMessage[7].state = ENTRY_DISABLED;
  ASSERT_EQ(VarnMessage[40].state, ENTRY_FREE);
  EXPECT_EQ(varnP_get_new_varnHandle(&h), 0);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(VarnErrorNo, VARN_E_TABLE_FULL);

  // A later success clears the error.
  varnP_deinit_entry(12);
  ASSERT_EQ(varnP_get_new_varnHandle(&h), 1);
  EXPECT_EQ(h, 12);
  EXPECT_EQ(VarnErrorNo, 0);
}

TEST_F(EntryTableTest, ClearedRowIsFreeButTheNamesHandedOutStayReadable) {
  SetRow(5, ENTRY_ACTIVE, "4312@lab7", "tool");
  char* name = nullptr;
  char* address = nullptr;
  ASSERT_EQ(varn_query_handle_address(5, &name, &address), 1);

  ASSERT_EQ(varn_deinit_entry(5), 1);
  int h = -1;
  EXPECT_EQ(varn_query_varn_handle(&h, "4312@lab7"), 0);
  // The application may still hold the row's strings; they are reused by
  // the row's next owner, not freed.
  EXPECT_STREQ(name, "tool");
  EXPECT_STREQ(address, "4312@lab7");

  for (int i = 0; i < 40; ++i) {
    if (i != 5) VarnMessage[i].state = ENTRY_ACTIVE;
  }
  EXPECT_EQ(varnP_find_entry_exact("77@lab7", 0), 5);
}

TEST_F(EntryTableTest, LookupsByAddressAndNameAcceptActiveAndExitedOnly) {
  SetRow(0, ENTRY_FREE, "1@a", "free");
  SetRow(1, ENTRY_DISABLED, "2@a", "disabled");
  SetRow(2, ENTRY_STARTING, "3@a", "starting");
  SetRow(3, ENTRY_EXITED, "4@a", "exited");
  SetRow(4, ENTRY_ACTIVE, nullptr, nullptr);  // no address or name yet: skipped
  SetRow(5, ENTRY_ACTIVE, "6@a", "active");
  SetRow(45, ENTRY_ACTIVE, "46@a", "beyond");  // outside the active count

  int h = -7;
  EXPECT_EQ(varn_query_varn_handle_byname(&h, "exited"), 1);
  EXPECT_EQ(h, 3);
  EXPECT_EQ(varn_query_varn_handle_byname(&h, "active"), 1);
  EXPECT_EQ(h, 5);
  EXPECT_EQ(varn_query_varn_handle(&h, "4@a"), 1);
  EXPECT_EQ(h, 3);

  h = -7;
  for (const char* name : {"free", "disabled", "starting", "beyond", ""}) {
    EXPECT_EQ(varn_query_varn_handle_byname(&h, name), 0) << name;
  }
  for (const char* address : {"1@a", "2@a", "3@a", "46@a", ""}) {
    EXPECT_EQ(varn_query_varn_handle(&h, address), 0) << address;
  }
  EXPECT_EQ(varn_query_varn_handle(&h, nullptr), 0);
  EXPECT_EQ(h, -7);
}

TEST_F(EntryTableTest, LookupsOfDisabledAndEnabledServers) {
  SetRow(0, ENTRY_DISABLED, nullptr, nullptr);
  SetRow(1, ENTRY_ACTIVE, "2@a", "editor");
  SetRow(2, ENTRY_DISABLED, nullptr, "editor");
  SetRow(3, ENTRY_ACTIVE, "4@a", "editor");
  VarnMessage[3].enabled_by_address = 1;

  int h = -1;
  EXPECT_EQ(varn::core::FindDisabledEntry(&h, "editor"), 1);
  EXPECT_EQ(h, 2);
  EXPECT_EQ(varn::core::FindEnabledEntry(&h, "editor"), 1);
  EXPECT_EQ(h, 3);  // row 1 is active but was not enabled by address
  EXPECT_EQ(varn::core::FindDisabledEntry(&h, "viewer"), 0);
  VarnMessage[3].enabled_by_address = 0;
  EXPECT_EQ(varn::core::FindEnabledEntry(&h, "editor"), 0);
}

TEST_F(EntryTableTest, QueryHandleAddressHandsOutRowPointers) {
  SetRow(2, ENTRY_ACTIVE, "4312@lab7", "tool");
  char* name = nullptr;
  char* address = nullptr;
  ASSERT_EQ(varn_query_handle_address(2, &name, &address), 1);
  EXPECT_EQ(name, VarnMessage[2].name);
  EXPECT_EQ(address, VarnMessage[2].address);

  SetRow(3, ENTRY_ACTIVE, nullptr, "noaddress");
  SetRow(4, ENTRY_FREE, "1@a", "free");
  for (int h : {3, 4, 40, -1}) {
    VarnErrorNo = 0;
    EXPECT_EQ(varn_query_handle_address(h, &name, &address), 0) << h;
    EXPECT_EQ(VarnErrorNo, VARN_E_BAD_HANDLE) << h;
  }
}

TEST_F(EntryTableTest, FindEntryExactFindsOrCreatesTheSourceRow) {
  SetRow(0, ENTRY_FREE, "4312@lab7");  // a free row never matches
  SetRow(2, ENTRY_EXITED, "4312@lab7");
  SetRow(3, ENTRY_ACTIVE, "4312@lab7");
  VarnErrorNo = 9;
  EXPECT_EQ(varnP_find_entry_exact("4312@lab7", 1), 2);
  EXPECT_EQ(VarnErrorNo, 0);

  EXPECT_EQ(varnP_find_entry_exact("5120@lab7", 1), -1);
  EXPECT_EQ(VarnErrorNo, VARN_E_NO_SOURCE);

  VarnMessage[0].send_stream = 2;
  VarnMessage[0].waiting = 1;
  VarnMessage[0].last_category = VARN_DONE;
  int h = varnP_find_entry_exact("5120@lab7", 0);
  ASSERT_EQ(h, 0);
  const VarnEntry& row = VarnMessage[0];
  EXPECT_EQ(row.state, ENTRY_ACTIVE);
  EXPECT_EQ(row.send_stream, 1u);
  EXPECT_EQ(row.recv_stream, 1u);
  EXPECT_EQ(row.waiting, 0u);
  EXPECT_EQ(row.last_category, 0u);
  EXPECT_STREQ(row.address, "4312@lab7");  // the caller sets the new address
}

TEST_F(EntryTableTest, FindEntryExactNamesTheHubRowAndReportsAFullTable) {
  VarnChanType = VARN_CHAN_PIPE;
  int h = varnP_find_entry_exact("quon", 0);
  ASSERT_EQ(h, 0);
  EXPECT_STREQ(VarnMessage[0].name, "quon");

  VarnChanType = VARN_CHAN_STANDALONE;
  for (int i = 0; i < 40; ++i) VarnMessage[i].state = ENTRY_ACTIVE;
  EXPECT_EQ(varnP_find_entry_exact("9@x", 0), -1);
  EXPECT_EQ(VarnErrorNo, VARN_E_TABLE_FULL);
}

TEST_F(EntryTableTest, ParentInformation) {
  char name[64] = "stale";
  char id[64] = "stale";
  EXPECT_EQ(varn_is_child_of_daemon(), 0);
  EXPECT_EQ(varn_get_parent_info(name, id), 1);
  EXPECT_STREQ(name, "");
  EXPECT_STREQ(id, "");

  char parent_name[] = "editor";
  char parent_id[] = "4312@lab7";
  State().opt_parentname = parent_name;
  State().opt_parentid = parent_id;
  EXPECT_EQ(varn_is_child_of_daemon(), 1);
  EXPECT_EQ(varn_get_parent_info(name, id), 1);
  EXPECT_STREQ(name, "editor");
  EXPECT_STREQ(id, "4312@lab7");
  EXPECT_EQ(varn_if_asciionly(), 0);
}

class FileTableTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    VarnFileEntry* table = &varn::core::FileRow(0);
    for (int i = 0; i < VARN_FILE_ENTRIES; ++i) {
      std::free(table[i].name);
      std::free(table[i].last_data);
      table[i] = VarnFileEntry{};
    }
    VarnErrorNo = 0;
  }
};

TEST_F(FileTableTest, WaitingRowIsFoundInIndexOrderIncludingReplyRow) {
  VarnFileEntry* table = &varn::core::FileRow(0);
  VarnErrorNo = 31;
  EXPECT_EQ(varnP_find_file_entry(), -1);
  EXPECT_EQ(VarnErrorNo, 0);
  table[VARN_QUON_REPLY_ROW].state = 2;
  EXPECT_EQ(varnP_find_file_entry(), VARN_QUON_REPLY_ROW);
  table[4].state = 1;  // open, not waiting
  table[9].state = 2;
  EXPECT_EQ(varnP_find_file_entry(), 9);
}

TEST_F(FileTableTest, ClearingLeavesTheReplyRowAlone) {
  VarnFileEntry* table = &varn::core::FileRow(0);
  for (int i = 0; i < VARN_FILE_ENTRIES; ++i) {
    table[i] = VarnFileEntry{1, nullptr, 7, 2, 2, VARN_FACK, nullptr, 3, 1, 1};
  }
  ASSERT_EQ(varn_util_strcpy(&table[0].name, "a.txt"), 1);
  table[29].last_data = static_cast<char*>(std::malloc(4));

  varn::core::ClearFileRows();
  auto fields = [](const VarnFileEntry& r) {
    return std::tie(r.state, r.name, r.remote_fd, r.mode, r.type, r.last_category, r.last_data,
                    r.last_data_len, r.send_stream, r.recv_stream);
  };
  const VarnFileEntry cleared{0, nullptr, -1, 0, 0, 0, nullptr, 0, 0, 0};
  for (int i = 0; i < VARN_QUON_REPLY_ROW; ++i)
    EXPECT_TRUE(fields(table[i]) == fields(cleared)) << i;
  EXPECT_EQ(table[VARN_QUON_REPLY_ROW].state, 1u);
  EXPECT_EQ(table[VARN_QUON_REPLY_ROW].remote_fd, 7);
}

TEST_F(FileTableTest, FilingAnAnswerReplacesThePayloadCopy) {
  VarnFileEntry* table = &varn::core::FileRow(0);
  EXPECT_FALSE(varn::core::FileAnswer(VARN_FACK, "3", 1));  // nobody waits: dropped

  table[VARN_QUON_REPLY_ROW].state = 2;
  const char payload[] = "a b\0c";  // a NUL inside the payload is kept
  ASSERT_TRUE(varn::core::FileAnswer(VARN_QUERYP, payload, 5));
  const VarnFileEntry& row = table[VARN_QUON_REPLY_ROW];
  EXPECT_EQ(row.last_category, VARN_QUERYP);
  ASSERT_EQ(row.last_data_len, 5u);
  EXPECT_EQ(std::string(row.last_data, 6), std::string(payload, 6));  // NUL after the copy
  EXPECT_NE(row.last_data, payload);

  ASSERT_TRUE(varn::core::FileAnswer(VARN_EDONE, "", 0));
  EXPECT_EQ(row.last_category, VARN_EDONE);
  EXPECT_EQ(row.last_data, nullptr);
  EXPECT_EQ(row.last_data_len, 0u);
  EXPECT_EQ(row.state, 2u);  // the waiting caller decides when it stops waiting
}

}  // namespace
