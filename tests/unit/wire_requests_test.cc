// Request and answer payloads: what the library builds, the hub reads back
// (and the other way round), one case per rule.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "transport/wire_format.h"
#include "transport/wire_requests.h"

namespace varn::wire {
namespace {

TEST(WireStartRequestTest, QuotedFieldsHostsAndArgumentsRoundTrip) {
  StartRequest r;
  std::string error;
  std::string payload = BuildStartRequest("/tmp/My Work", CommandWord("tool", "h1"), "-a \"b c\"");
  EXPECT_EQ(payload, "\"/tmp/My Work\" h1:tool -a \"b c\"");
  ASSERT_TRUE(ParseStartRequest(payload, &r, &error));
  EXPECT_EQ(r.directory, "/tmp/My Work");
  EXPECT_EQ(r.command, "h1:tool");
  EXPECT_EQ(r.host, "h1");
  EXPECT_EQ(r.program, "tool");
  EXPECT_EQ(r.arguments, "-a \"b c\"");

  payload = BuildStartRequest("/w", CommandWord("my tool", ""), "");
  EXPECT_EQ(payload, "/w \"my tool\"");
  ASSERT_TRUE(ParseStartRequest(payload, &r, &error));
  EXPECT_EQ(r.program, "my tool");
  EXPECT_EQ(r.host, "");
  EXPECT_EQ(r.arguments, "");
  // A field with a blank and a double quote is sent as it is.
  EXPECT_EQ(QuoteField("a \"b\""), "a \"b\"");
  ASSERT_TRUE(ParseStartRequest("/w ./bin:x/prog", &r, &error));  // a path, not a host
  EXPECT_EQ(r.program, "./bin:x/prog");
  EXPECT_EQ(r.host, "");

  EXPECT_FALSE(ParseStartRequest("", &r, &error));
  EXPECT_FALSE(ParseStartRequest("/w", &r, &error));
  EXPECT_FALSE(ParseStartRequest("\"/w tool", &r, &error));
  EXPECT_FALSE(ParseStartRequest("/w h1:", &r, &error));
}

TEST(WireProcessListTest, RecordsRoundTripAndShortRecordsEndTheList) {
  std::string list;
  AppendProcessRecord(&list, "sim", "12@h", "quon@h", VARN_STATUS_IDLE);
  AppendProcessRecord(&list, "viewer", "13@h", "12@h", VARN_STATUS_BUSY);
  EXPECT_EQ(list, "sim 12@h quon@h 0 viewer 13@h 12@h 1");
  std::string_view rest = list;
  ProcessRecord r;
  ASSERT_TRUE(NextProcessRecord(&rest, &r));
  EXPECT_EQ(r.name, "sim");
  EXPECT_EQ(r.address, "12@h");
  EXPECT_EQ(r.parent, "quon@h");
  EXPECT_EQ(r.status, 0);
  ASSERT_TRUE(NextProcessRecord(&rest, &r));
  EXPECT_EQ(r.name, "viewer");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(rest.empty());
  EXPECT_FALSE(NextProcessRecord(&rest, &r));
  // Fewer than three blanks left: no record. The number reads as atoi does.
  rest = "a b c";
  EXPECT_FALSE(NextProcessRecord(&rest, &r));
  rest = std::string_view("a b c 7x\0\0", 10);
  ASSERT_TRUE(NextProcessRecord(&rest, &r));
  EXPECT_EQ(r.status, 7);
}

TEST(WireServerQueryTest, OwnerAndServerRoundTrip) {
  std::string_view owner, server;
  std::string query = BuildServerQuery("12@h", "sim");
  ParseServerQuery(query, &owner, &server);
  EXPECT_EQ(owner, "12@h");
  EXPECT_EQ(server, "sim");
  ParseServerQuery("lab7:server1:x", &owner, &server);
  EXPECT_EQ(owner, "lab7");
  EXPECT_EQ(server, "server1");
  ParseServerQuery("server1", &owner, &server);
  EXPECT_EQ(owner, "");
  EXPECT_EQ(server, "server1");
}

TEST(WireNamesTest, ProgramBaseNamesAndRoutePrefixes) {
  EXPECT_EQ(ProgramBaseName("C:\\bin\\tool.exe"), "tool");
  EXPECT_EQ(ProgramBaseName("/opt/bin/sim.exe"), "sim");
  EXPECT_EQ(ProgramBaseName("tool"), "tool");
  EXPECT_EQ(ProgramBaseName(".hidden"), ".hidden");
  EXPECT_EQ(ProgramBaseName("name."), "name.");
  EXPECT_EQ(WithoutRoutePrefix("!x12@h"), "12@h");
  EXPECT_EQ(WithoutRoutePrefix("12@h"), "12@h");
  EXPECT_EQ(WithoutRoutePrefix("!x"), "!x");
}

TEST(WireStatusTest, AnswersRoundTripAndUnknownWordsFail) {
  int status = -1;
  std::string_view text;
  std::string answer = BuildStatusAnswer(VARN_STATUS_BUSY, "compiling");
  ASSERT_TRUE(ParseStatusAnswer(answer, &status, &text));
  EXPECT_EQ(status, VARN_STATUS_BUSY);
  EXPECT_EQ(text, "compiling");
  EXPECT_EQ(BuildStatusAnswer(VARN_STATUS_IDLE, ""), "IDLE");
  ASSERT_TRUE(ParseStatusAnswer("DEAD", &status, &text));
  EXPECT_EQ(status, VARN_STATUS_DEAD);
  EXPECT_EQ(text, "");
  EXPECT_FALSE(ParseStatusAnswer("idle", &status, &text));
  EXPECT_EQ(StatusWord(3), nullptr);
}

TEST(WireHubCommandTest, VerbAndArgument) {
  std::string command = SetChanModeCommand(3);
  HubCommand c = ParseHubCommand(command);
  EXPECT_EQ(c.verb, kSetChanModeVerb);
  EXPECT_EQ(c.argument, "3");
  c = ParseHubCommand("list  ");
  EXPECT_EQ(c.verb, kListCommand);
  EXPECT_EQ(c.argument, "");
}

TEST(WireFileRequestTest, EveryRequestRoundTrips) {
  std::string_view name, mode, type;
  std::string open = BuildOpenRequest("my file.txt", 2, 1);
  EXPECT_EQ(open, "my file.txt WRITE TEXT");
  ASSERT_TRUE(ParseOpenRequest(open, &name, &mode, &type));
  EXPECT_EQ(name, "my file.txt");
  int code = 0;
  ASSERT_TRUE(FileModeFromWord(mode, &code));
  EXPECT_EQ(code, 2);
  ASSERT_TRUE(FileTypeFromWord(type, &code));
  EXPECT_EQ(code, 1);
  EXPECT_FALSE(ParseOpenRequest("name", &name, &mode, &type));
  EXPECT_EQ(FileModeWord(4), nullptr);
  EXPECT_EQ(FileTypeWord(0), nullptr);

  long long number = 0, count = 0, offset = 0, whence = 0;
  ASSERT_TRUE(ParseReadRequest(BuildReadRequest(3, 30208), &number, &count));
  EXPECT_EQ(number, 3);
  EXPECT_EQ(count, 30208);
  ASSERT_TRUE(ParseSeekRequest(BuildSeekRequest(3, -5, 2), &number, &offset, &whence));
  EXPECT_EQ(offset, -5);
  EXPECT_EQ(whence, 2);
  ASSERT_TRUE(ParseNumberRequest(BuildNumberRequest(12), &number));
  EXPECT_EQ(number, 12);
  EXPECT_FALSE(ParseNumberRequest("12x", &number));

  // FWRITE data may hold NULs and arrives with the packet's padding.
  std::string data("a\0b", 3);
  std::string payload = BuildWriteHeader(3, data.size()) + data + std::string(2, '\0');
  std::string_view got;
  ASSERT_TRUE(ParseWriteRequest(payload, &number, &got));
  EXPECT_EQ(number, 3);
  EXPECT_EQ(got, data);
  EXPECT_FALSE(ParseWriteRequest("3 9 ab", &number, &got));  // fewer bytes than counted
}

TEST(WireRequestsTest, LinkControlsRoundTripAndStrangersArePlainPings) {
  LinkControl c;
  c.verb = LinkVerb::kOpen;
  c.peer = "12@host";
  c.in_path = "/run/q-1b";
  c.out_path = "/run/q-1a";
  std::string text = BuildLinkControl(c);
  EXPECT_EQ(text, "link open 12@host /run/q-1b /run/q-1a");
  LinkControl got;
  std::string padded = text + std::string(2, '\0');
  ASSERT_TRUE(ParseLinkControl(padded, &got));
  EXPECT_EQ(got.verb, LinkVerb::kOpen);
  EXPECT_EQ(got.peer, "12@host");
  EXPECT_EQ(got.in_path, "/run/q-1b");
  EXPECT_EQ(got.out_path, "/run/q-1a");

  ASSERT_TRUE(ParseLinkControl(BuildLinkControl({LinkVerb::kReady, "7@h", {}, {}, false}), &got));
  EXPECT_EQ(got.verb, LinkVerb::kReady);
  EXPECT_FALSE(got.ok);
  EXPECT_EQ(BuildLinkControl({LinkVerb::kOver, "ignored", {}, {}, true}), "link over");
  ASSERT_TRUE(ParseLinkControl("link over", &got));
  EXPECT_EQ(got.verb, LinkVerb::kOver);

  // Anything else is a plain PING's payload, dropped as before.
  for (const char* other : {"", "hello", "link", "link jump 1@h", "link open 1@h /only-one",
                            "link ready 1@h maybe", "link go", "link over now", "link go 1@h x"}) {
    EXPECT_FALSE(ParseLinkControl(other, &got)) << other;
  }
}

}  // namespace
}  // namespace varn::wire
