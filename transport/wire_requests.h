// The payloads of the requests a process sends the hub and of the answers
// it reads back: built here by the library and parsed here by the hub (and
// the other way round for answers), so that both sides follow one rule.
// Like wire_format.h this module holds no state; docs/quon.md describes the
// requests in prose.
#ifndef VARN_TRANSPORT_WIRE_REQUESTS_H_
#define VARN_TRANSPORT_WIRE_REQUESTS_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace varn::wire {

// ---- Start requests (INVOKE, INVOKE_EX, INVOKER, INVOKERE, INVOKERN) ------
//
// The working directory, one blank, the command word, and when there are
// arguments one blank and the argument text. The directory and the command
// word are wrapped in double quotes when they hold a blank and no double
// quote (a field with both cannot be sent unambiguously). The command word
// is "host:name", or the name alone.

// The command word of a start: "host:name", or name when host is empty.
std::string CommandWord(std::string_view name, std::string_view host);
// A field as it travels: quoted when it holds a blank and no double quote.
std::string QuoteField(std::string_view field);
std::string BuildStartRequest(std::string_view directory, std::string_view command_word,
                              std::string_view arguments);

struct StartRequest {
  std::string directory;
  std::string command;  // the command word, unquoted, as sent
  std::string host;     // empty when the word names no host
  std::string program;
  std::string arguments;  // the argument text, not yet split
};
// False with a one-line reason when the payload is not a start request. A
// colon after a "/" belongs to a path and names no host.
bool ParseStartRequest(std::string_view payload, StartRequest* request, std::string* error);

// ---- The process list (QUERYP? / QUERYP) -----------------------------------
//
// Records separated by single blanks, each four words: program name,
// address, parent's address, status number.

inline constexpr std::string_view kProcessListRequest = "NULL@NULL NULL NULL AllProcess ByName";

struct ProcessRecord {
  std::string_view name;
  std::string_view address;
  std::string_view parent;  // "something@host": the part after "@" names the host
  int status = 0;
};
void AppendProcessRecord(std::string* list, std::string_view name, std::string_view address,
                         std::string_view parent, int status);
// Reads the record at the start of *rest and moves *rest past the blank
// that follows its fourth word (or to the end). False at the end of the
// text or when fewer than three blanks remain. The status is read as atoi
// would read the fourth word.
bool NextProcessRecord(std::string_view* rest, ProcessRecord* record);

// The name a server is known by: its program name without a leading drive
// ("C:"), directories and extension. "C:\\bin\\tool.exe" and "/opt/tool"
// both give "tool". An extension is a dot that is neither the first nor
// the last character of the last component, and what follows it.
std::string_view ProgramBaseName(std::string_view name);

// ---- The server query (QUERY? / QUERY) -------------------------------------
//
// "OWNER:SERVER": the address of a known process and a server name; a
// further colon ends the server name. Without a colon the whole text is the
// server name.
std::string BuildServerQuery(std::string_view owner_address, std::string_view server);
void ParseServerQuery(std::string_view text, std::string_view* owner, std::string_view* server);

// ---- Status answers (STATUS) -----------------------------------------------
//
// A status word, and when there is one a blank and a free text.
std::string BuildStatusAnswer(int status, std::string_view text);
// False when the first word is not a status word (*text is still set).
bool ParseStatusAnswer(std::string_view payload, int* status, std::string_view* text);

// ---- Hub commands (CMD to the hub) -----------------------------------------

inline constexpr std::string_view kSetChanModeVerb = "set_chan_mode";
inline constexpr std::string_view kListCommand = "list";
inline constexpr std::string_view kQueuesCommand = "queues";
std::string SetChanModeCommand(int mode);
struct HubCommand {
  std::string_view verb;
  std::string_view argument;  // the rest after one blank; trailing blanks dropped
};
HubCommand ParseHubCommand(std::string_view text);

// ---- Direct links (PING payloads) ------------------------------------------
//
// Two processes that exchange messages can be given a pair of pipes of their
// own, so that their packets stop crossing the hub. The setting-up travels
// in PING packets, which a process that takes no part in it drops:
//   "link want PEER"           process -> hub: it would like a link with PEER;
//                              the hub sets one up once both sides want it
//   "link open PEER IN OUT"    hub -> each side: the paths of the pipe it
//                              reads (IN) and of the one it writes (OUT)
//   "link ready PEER ok|fail"  process -> hub: both ends opened, or not
//   "link go PEER"             hub -> each side, once both are ready
//   "link drop PEER"           hub -> each side: the setting-up failed
//   "link over"                process -> PEER, through the hub: the last
//                              packet of it that crosses the hub; all later
//                              ones come on the link
// Addresses and paths are single words. The hub gives one process at most
// kMaxLinksPerProcess links; a process reads each of them beside the hub's
// channel.
inline constexpr int kMaxLinksPerProcess = 16;
enum class LinkVerb { kWant, kOpen, kReady, kGo, kDrop, kOver };
struct LinkControl {
  LinkVerb verb = LinkVerb::kWant;
  std::string_view peer;      // empty for kOver
  std::string_view in_path;   // kOpen
  std::string_view out_path;  // kOpen
  bool ok = true;             // kReady
};
std::string BuildLinkControl(const LinkControl& control);
std::string BuildLinkControl(LinkVerb verb, std::string_view peer = {},
                             std::string_view in_path = {}, std::string_view out_path = {},
                             bool ok = true);
// False when the payload is not a link control (then the PING is a plain one).
bool ParseLinkControl(std::string_view payload, LinkControl* control);

// ---- Remote file requests (FOPEN ... FTELL) --------------------------------
//
// Every request but FWRITE is a text; FSTAT and FUNLINK carry a path, the
// others name the file by the number the hub gave it.

// Whether the category is one of the file requests the hub serves.
bool IsFileRequest(int category);

// Mode codes 1 READ, 2 WRITE, 3 APPEND; type codes 1 TEXT, 2 BINARY.
// nullptr / false for any other code or word.
const char* FileModeWord(int mode);
const char* FileTypeWord(int type);
bool FileModeFromWord(std::string_view word, int* mode);
bool FileTypeFromWord(std::string_view word, int* type);

// FOPEN: "NAME MODE TYPE"; the name may hold blanks.
std::string BuildOpenRequest(std::string_view name, int mode, int type);
bool ParseOpenRequest(std::string_view text, std::string_view* name, std::string_view* mode,
                      std::string_view* type);
// FREAD: "NUMBER COUNT".
std::string BuildReadRequest(long number, long count);
bool ParseReadRequest(std::string_view text, long long* number, long long* count);
// FWRITE: "NUMBER COUNT " followed by COUNT raw bytes. The builder gives
// the text in front of the bytes.
std::string BuildWriteHeader(long number, std::size_t count);
bool ParseWriteRequest(std::string_view payload, long long* number, std::string_view* data);
// FSEEK: "NUMBER OFFSET WHENCE".
std::string BuildSeekRequest(long number, std::int64_t offset, int whence);
bool ParseSeekRequest(std::string_view text, long long* number, long long* offset,
                      long long* whence);
// FCLOSE, FREWIND, FTELL, FEOF: "NUMBER".
std::string BuildNumberRequest(long number);
bool ParseNumberRequest(std::string_view text, long long* number);

// The FNAK payload of a read at the end of the file.
inline constexpr std::string_view kEndOfFileRefusal = "0";

// A payload without the NUL padding of its packet.
std::string_view WithoutPadding(std::string_view payload);

}  // namespace varn::wire

#endif  // VARN_TRANSPORT_WIRE_REQUESTS_H_
