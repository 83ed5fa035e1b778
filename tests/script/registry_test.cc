// The server table, the handler stacks, the script errors and the layout of
// the vocabularies, without a hub: the table works on its own, and library
// calls that would need the hub are not reached.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "host/mirl/mirl.h"
#include "script/handlers.h"
#include "script/message_kinds.h"
#include "script/script_errors.h"
#include "script/server_table.h"
#include "script/system_command.h"
#include "script/vocabulary.h"
#include "varn.h"

namespace varn::script {
namespace {

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Script() = ScriptState{};
    reports_ = std::tmpfile();
    ASSERT_NE(reports_, nullptr);
    mirl::SetReportStream(reports_);
    ASSERT_NE(aquon_coexist_initialize(0, 0, -1), 0);
  }
  void TearDown() override {
    aerr_report();
    mirl::SetReportStream(nullptr);
    std::fclose(reports_);
  }
  // The error and warning lines written so far (pending errors reported).
  std::string Reports() {
    aerr_report();
    std::fflush(reports_);
    std::rewind(reports_);
    std::string text;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, reports_) != nullptr) text += buffer;
    return text;
  }
  static std::string Text(int index, int field) {
    const char* text = static_cast<const char*>(aquon_get_server(index, field));
    return text != nullptr ? text : "<null>";
  }
  static int Int(int index, int field) {
    const int* value = static_cast<const int*>(aquon_get_server(index, field));
    return value != nullptr ? *value : -999;
  }
  std::FILE* reports_ = nullptr;
};

TEST_F(RegistryTest, SlotsAreTakenFreedAndReusedAndTheTableGrowsByMovingRecords) {
  // Without a parent slot 0 is an empty record: servers start at 1.
  ASSERT_TRUE(ValidServer(0));
  EXPECT_EQ(Text(0, kFieldName), "");
  EXPECT_EQ(aquon_allocate_server("a", "id-a", "HOSTVAR", "-x", "fn", -1, 1, 1), 1);
  EXPECT_EQ(Text(1, kFieldName), "a");
  EXPECT_EQ(Text(1, kFieldId), "id-a");
  EXPECT_EQ(Text(1, kFieldHostVariable), "HOSTVAR");
  EXPECT_EQ(Text(1, kFieldArguments), "-x");
  EXPECT_EQ(Text(1, kFieldArgumentFunction), "fn");
  EXPECT_EQ(Int(1, kFieldHandle), -1);
  EXPECT_EQ(Int(1, kFieldViaServer), -1);
  EXPECT_EQ(Int(1, kFieldNonVelor), 1);
  EXPECT_EQ(Int(1, kFieldKeepEntry), 1);
  EXPECT_EQ(aquon_get_server(1, 9), nullptr);
  EXPECT_EQ(aquon_get_server(2, 0), nullptr);  // past the end
  EXPECT_EQ(aquon_allocate_server("b", nullptr, nullptr, nullptr, nullptr, -1, 0, 0), 2);
  EXPECT_EQ(Text(2, kFieldId), "");  // a null text is an empty one
  EXPECT_EQ(aquon_allocate_server("c", "", "", "", "", -1, 0, 0), 3);
  EXPECT_EQ(aquon_allocate_server("b", "", "", "", "", 1, 0, 0), 4);  // b reached through a

  // The same name through another server is another server.
  EXPECT_EQ(aquon_find_server("b", -1), 2);
  EXPECT_EQ(aquon_find_server("b", 1), 4);
  EXPECT_EQ(aquon_find_server("nothing", -1), -1);
  EXPECT_EQ(aquon_find_server(nullptr, -1), -1);

  // Freeing 2 of 4 and allocating again reuses 2; the table does not grow.
  std::size_t slots = Script().servers.size();
  aquon_delete_server(2, 0);
  EXPECT_FALSE(ValidServer(2));
  EXPECT_EQ(aquon_get_server(2, 0), nullptr);
  EXPECT_EQ(aquon_allocate_server("d", "", "", "", "", -1, 0, 0), 2);
  EXPECT_EQ(Script().servers.size(), slots);
  EXPECT_EQ(Text(2, kFieldName), "d");

  // Growth moves the records; what they hold stays.
  const void* before = aquon_get_server(1, kFieldName);
  for (int i = 0; i < 64; ++i) aquon_allocate_server("more", "", "", "", "", -1, 0, 0);
  EXPECT_NE(aquon_get_server(1, kFieldName), before);
  EXPECT_EQ(Text(1, kFieldName), "a");

  EXPECT_EQ(aquon_set_server_parms(1, nullptr), 1);
  EXPECT_EQ(Text(1, kFieldArguments), "-x");
  EXPECT_EQ(aquon_set_server_parms(1, "-y"), 1);
  EXPECT_EQ(Text(1, kFieldArguments), "-y");
  EXPECT_EQ(aquon_set_server_parms(999, "-z"), 0);
  EXPECT_EQ(Reports(), "");  // none of these is a script error
}

TEST_F(RegistryTest, ScriptArgumentsNameServersDirectlyOrThroughTheDefaultServer) {
  aquon_allocate_server("gate", "", "", "", "", -1, 0, 0);  // 1
  aquon_allocate_server("inner", "", "", "", "", 1, 0, 0);  // 2, reached through 1
  MIRLValue* name = aval_create_string("inner");
  MIRLValue* number = aval_create_raw_integer(7);
  EXPECT_EQ(aquon_decode_server(AvalString, name), -1);
  EXPECT_EQ(aquon_decode_server(AvalNone, nullptr), -1);
  EXPECT_EQ(aquon_set_default_server(1), 1);
  EXPECT_EQ(aquon_set_default_server(99), 0);
  EXPECT_EQ(aquon_decode_server(AvalString, name), 2);
  EXPECT_EQ(aquon_decode_server(AvalNone, nullptr), 1);
  EXPECT_EQ(aquon_decode_server(AvalInteger, number), 7);  // no range test
  EXPECT_EQ(aquon_decode_server(AvalList, nullptr), -1);
  aval_free_value(name);
  aval_free_value(number);
}

TEST_F(RegistryTest, PollSettingsFollowIntervalAndTimeout) {
  struct Case {
    int interval, timeout, want_interval, want_count;
  };
  for (Case c : {Case{0, 0, 1, 300}, Case{2, 0, 2, 150}, Case{2, 60, 2, 31}, Case{5, 0, 5, 60}}) {
    Script() = ScriptState{};
    InitServers(c.interval, c.timeout, -1);
    EXPECT_EQ(Script().aquon_poll_interval, c.want_interval) << c.interval << "," << c.timeout;
    EXPECT_EQ(Script().aquon_poll_count, c.want_count) << c.interval << "," << c.timeout;
  }
}

TEST_F(RegistryTest, TheParentHoldsSlotZeroAndIsNeverKilled) {
  Script() = ScriptState{};
  Script().aquon_initialized = 1;
  InitServers(0, 0, 5);
  ASSERT_TRUE(ValidServer(0));
  EXPECT_EQ(Int(0, kFieldHandle), 5);
  EXPECT_EQ(Server(0).external, 1u);
  EXPECT_EQ(aquon_allocate_server("x", "", "", "", "", -1, 0, 0), 1);
  // Each error is reported before the next is raised: the first pending
  // error is the one that counts.
  EXPECT_EQ(aquon_kill_server(0), 0);
  aerr_report();
  EXPECT_EQ(aquon_kill_server(42), 0);
  aerr_report();
  EXPECT_EQ(aquon_kill_server(1), 0);  // no handle: not running
  aerr_report();
  Server(1).handle = 3;
  Server(1).external = 1;  // as a registered server
  EXPECT_EQ(aquon_kill_server(1), 0);
  aerr_report();
  EXPECT_EQ(aquon_clear_server(77), 0);
  EXPECT_EQ(Reports(),
            "MIRL error 355: no server set\n"
            "MIRL error 355: no server set\n"
            "MIRL error 357: server not running: x\n"
            "MIRL error 357: server not running: x\n"
            "MIRL error 355: no server set\n");
}

TEST_F(RegistryTest, ABlockNeedsAServerThatIsNotBusyAndATitle) {
  int s = aquon_allocate_server("blocky", "", "", "", "", -1, 0, 0);
  Server(s).handle = 9;  // as if started; nothing is sent in these cases
  Server(s).busy = 1;
  EXPECT_EQ(aquon_start_data_block_server("title", s, ""), 0);
  aerr_report();
  Server(s).busy = 0;
  EXPECT_EQ(aquon_start_data_block_server(nullptr, s, ""), 0);
  aerr_report();
  EXPECT_EQ(aquon_start_data_block_server("title", 55, ""), 0);
  EXPECT_EQ(Reports(),
            "MIRL error 356: server is busy: blocky\n"
            "MIRL error 351: missing block title\n"
            "MIRL error 355: no server set\n");
  // Without a block under way, data and its end go nowhere, silently.
  Script().aquon_block_handle = -1;
  EXPECT_EQ(aquon_cont_data_block_server("piece"), 0);
  EXPECT_EQ(aquon_end_data_block_server(nullptr), 0);
}

TEST_F(RegistryTest, ResetForgetsHandlesDownTheChainButKeepsKeptEntriesAndExternals) {
  int a = aquon_allocate_server("a", "", "", "", "", -1, 0, 0);
  int b = aquon_allocate_server("b", "", "", "", "", a, 0, 1);  // kept entry
  int c = aquon_allocate_server("c", "", "", "", "", a, 0, 0);
  int d = aquon_allocate_server("d", "", "", "", "", a, 0, 0);
  for (int i : {a, b, c, d}) {
    Server(i).handle = 10 + i;
    Server(i).busy = 1;
  }
  Server(d).external = 1;
  ResetServer(a);
  EXPECT_EQ(Server(a).handle, -1);
  EXPECT_EQ(Server(b).handle, 10 + b);  // the entry is kept for a restart
  EXPECT_EQ(Server(b).busy, 0u);
  EXPECT_EQ(Server(c).handle, -1);
  EXPECT_EQ(Server(d).handle, 10 + d);  // not ours
  EXPECT_EQ(Server(d).busy, 1u);
}

TEST_F(RegistryTest, ErrorsCarryTheirWordsAndLibraryErrorsTheirNumber) {
  for (int code = kCouldNotInvoke; code <= kCouldNotOpenHelp; ++code) {
    EXPECT_NE(ScriptErrorWord(code), nullptr) << code;
  }
  EXPECT_EQ(ScriptErrorWord(349), nullptr);
  EXPECT_EQ(ScriptErrorWord(360), nullptr);
  EXPECT_STREQ(ScriptErrorWord(kReceiveWarning), "");
  VarnErrorNo = VARN_E_BAD_HANDLE;
  aquon_set_varn_error();
  EXPECT_EQ(Reports(), std::string("MIRL error 352: varn error: 31, ") +
                           varn_get_error_message(VARN_E_BAD_HANDLE) + "\n");
  VarnErrorNo = 0;
}

void Record(void* data, int index, int kind, const char* payload) {
  static_cast<std::vector<std::string>*>(data)->push_back(std::to_string(index) + " " +
                                                          std::to_string(kind) + " " + payload);
}

TEST_F(RegistryTest, OnlyTheTopHandlerSeesAMessageAndDeathResetsTheServer) {
  int s = aquon_allocate_server("status", "", "", "", "", -1, 0, 0);
  Server(s).handle = 12;
  Server(s).busy = 1;
  Script().aquon_status_started = 1;
  std::vector<std::string> lower, upper;
  EXPECT_EQ(aquon_push_handler(99, Record, &lower), 0);
  ASSERT_EQ(aquon_push_handler(s, Record, &lower), 1);
  ASSERT_EQ(aquon_push_handler(s, Record, &upper), 1);
  EXPECT_EQ(aquon_execute_message(12, kKindData, "one"), 1);
  EXPECT_EQ(Server(s).busy, 1u);  // data does not end a command
  EXPECT_EQ(aquon_execute_message(12, kKindDone, "two"), 1);
  EXPECT_EQ(Server(s).busy, 0u);
  void* popped = nullptr;
  ASSERT_EQ(aquon_pop_handler(s, &popped), 1);
  EXPECT_EQ(popped, &upper);
  EXPECT_EQ(aquon_execute_message(12, kKindDeath, "gone"), 1);
  EXPECT_EQ(Server(s).handle, -1);
  EXPECT_EQ(Script().aquon_status_started, 0);  // a new session next time
  EXPECT_EQ(aquon_execute_message(55, kKindData, "nobody"), 1);
  EXPECT_EQ(upper, (std::vector<std::string>{"1 1 one", "1 5 two"}));
  EXPECT_EQ(lower, (std::vector<std::string>{"1 7 gone"}));
  ASSERT_EQ(aquon_pop_handler(s, nullptr), 1);
  EXPECT_EQ(aquon_pop_handler(s, nullptr), 0);
}

TEST(MessageKindTest, CategoriesMapToTheKindsScriptsSee) {
  EXPECT_EQ(KindOfCategory(VARN_CMD), 0);
  EXPECT_EQ(KindOfCategory(VARN_DATA), 1);
  EXPECT_EQ(KindOfCategory(VARN_BEGIN), 2);
  EXPECT_EQ(KindOfCategory(VARN_END), 4);
  EXPECT_EQ(KindOfCategory(VARN_DONE), 5);
  EXPECT_EQ(KindOfCategory(VARN_ERROR), 6);
  EXPECT_EQ(KindOfCategory(VARN_SRVR_ERR), 7);
  EXPECT_EQ(KindOfCategory(0), -1);
  EXPECT_EQ(KindOfCategory(VARN_ACK), -1);
}

TEST(VocabularyTest, FunctionAndConstantTablesHaveTheirLayoutEntryByEntry) {
  static_assert(sizeof(AutilVocEntry) == 7 * sizeof(void*));
  static_assert(sizeof(AutilVocabulary) == 4 * sizeof(void*));
  const char* const functions[] = {"create_server",
                                   "delete_server",
                                   "register_server",
                                   "clear_server",
                                   "start_server",
                                   "server_running",
                                   "query_server_address",
                                   "send_server_command",
                                   "send_server_error",
                                   "send_server_data",
                                   "send_server_datablock",
                                   "send_server_done",
                                   "send_server_interrupt",
                                   "send_server_kill",
                                   "read_server_wait",
                                   "push_message_handler",
                                   "pop_message_handler",
                                   "wait_for_done",
                                   "get_done_msg",
                                   "set_server_parms",
                                   "query_server_info",
                                   "connect_server",
                                   "connect_server_by_name",
                                   "query_server_status",
                                   "query_all_server_handles",
                                   "open_status_session",
                                   "send_status_text",
                                   "mirl_open_url",
                                   "weblinked_error",
                                   "system",
                                   "tracepoint"};
  const AutilVocabulary& f = aquon_function_vocabulary;
  EXPECT_STREQ(f.domain, "MIRL");
  EXPECT_EQ(f.reserved, 0);
  ASSERT_EQ(f.count, 31);
  for (int i = 0; i < 31; ++i) {
    const AutilVocEntry& e = f.table[i];
    EXPECT_STREQ(e.name, functions[i]) << i;
    EXPECT_EQ(e.kind, AutilFunctionEntry) << i;
    EXPECT_NE(e.value, 0) << i;
    for (intptr_t r : e.reserved) EXPECT_EQ(r, 0) << i;
  }
  const char* const constants[] = {
      "MIRLQUON_COMMAND",  "MIRLQUON_DATA", "MIRLQUON_DATA_BEGIN", "MIRLQUON_DATA_CONTINUE",
      "MIRLQUON_DATA_END", "MIRLQUON_DONE", "MIRLQUON_ERROR",      "MIRLQUON_DEATH"};
  const AutilVocabulary& c = mirlquon_constant_vocabulary;
  EXPECT_STREQ(c.domain, "MIRL");
  ASSERT_EQ(c.count, 8);
  for (int i = 0; i < 8; ++i) {
    EXPECT_STREQ(c.table[i].name, constants[i]);
    EXPECT_EQ(c.table[i].kind, AutilConstantEntry);
    EXPECT_EQ(c.table[i].value, i);
    for (intptr_t r : c.table[i].reserved) EXPECT_EQ(r, 0) << i;
  }
  EXPECT_EQ(MIRLQUON_DEATH, 7);
}

TEST(SystemCommandTest, ProgramIsTheFirstWordWithQuotesAndTheRestStaysAsWritten) {
  struct Case {
    const char* command;
    const char* program;
    const char* arguments;
  };
  for (Case c :
       {Case{"notepad a.txt", "notepad", "a.txt"},
        Case{"\"C:\\Program Files\\x.exe\" -v", "C:\\Program Files\\x.exe", "-v"},
        Case{" \t\rtool  two  \"q r\"", "tool", " two  \"q r\""}, Case{"a\"b c\"d e", "ab cd", "e"},
        Case{"alone", "alone", ""}, Case{"line\nfeed x", "line\nfeed", "x"}, Case{"", "", ""}}) {
    SplitCommand split = SplitCommandLine(c.command);
    EXPECT_EQ(split.program, c.program) << c.command;
    EXPECT_EQ(split.arguments, c.arguments) << c.command;
  }
  EXPECT_TRUE(HasRedirection("dir > out"));
  EXPECT_TRUE(HasRedirection("a < b"));
  EXPECT_TRUE(HasRedirection("a | b"));
  EXPECT_FALSE(HasRedirection("ls ~/work"));
}

}  // namespace
}  // namespace varn::script
