#include "transport/wire_requests.h"

#include <charconv>
#include <iterator>

#include "transport/wire_format.h"

namespace varn::wire {
namespace {

// Takes one start-request field: a double-quoted text, or everything up to
// the next blank.
bool TakeField(std::string_view* rest, std::string* field) {
  std::string_view r = *rest;
  if (!r.empty() && r[0] == '"') {
    std::size_t close = r.find('"', 1);
    if (close == std::string_view::npos) return false;
    *field = std::string(r.substr(1, close - 1));
    *rest = r.substr(close + 1);
    return true;
  }
  std::size_t blank = r.find(' ');
  *field = std::string(r.substr(0, blank));
  *rest = blank == std::string_view::npos ? std::string_view() : r.substr(blank);
  return true;
}

bool ParseNumber(std::string_view text, long long* value) {
  if (text.empty()) return false;
  const char* end = text.data() + text.size();
  auto r = std::from_chars(text.data(), end, *value);
  return r.ec == std::errc() && r.ptr == end;
}

// Splits on single blanks into exactly `count` fields; the last takes the
// rest.
template <std::size_t N>
bool Fields(std::string_view text, std::string_view (&out)[N]) {
  for (std::size_t i = 0; i + 1 < N; ++i) {
    std::size_t blank = text.find(' ');
    if (blank == std::string_view::npos) return false;
    out[i] = text.substr(0, blank);
    text.remove_prefix(blank + 1);
  }
  out[N - 1] = text;
  return true;
}

// The leading decimal number of a word, as atoi reads it.
int LeadingNumber(std::string_view word) {
  std::size_t i = 0;
  while (i < word.size() && (word[i] == ' ' || (word[i] >= '\t' && word[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < word.size() && (word[i] == '-' || word[i] == '+')) negative = word[i++] == '-';
  long long value = 0;
  for (; i < word.size() && word[i] >= '0' && word[i] <= '9'; ++i) {
    value = value * 10 + (word[i] - '0');
    if (value > 2147483648LL) value = 2147483648LL;
  }
  if (negative) value = -value;
  if (value > 2147483647LL) value = 2147483647LL;
  return static_cast<int>(value);
}

constexpr const char* kModeWords[] = {"READ", "WRITE", "APPEND"};
constexpr const char* kTypeWords[] = {"TEXT", "BINARY"};

}  // namespace

std::string CommandWord(std::string_view name, std::string_view host) {
  if (host.empty()) return std::string(name);
  return std::string(host) + ":" + std::string(name);
}

std::string QuoteField(std::string_view field) {
  if (field.find(' ') != std::string_view::npos && field.find('"') == std::string_view::npos) {
    return "\"" + std::string(field) + "\"";
  }
  return std::string(field);
}

std::string BuildStartRequest(std::string_view directory, std::string_view command_word,
                              std::string_view arguments) {
  std::string payload = QuoteField(directory) + " " + QuoteField(command_word);
  if (!arguments.empty()) {
    payload += ' ';
    payload += arguments;
  }
  return payload;
}

bool ParseStartRequest(std::string_view payload, StartRequest* request, std::string* error) {
  std::string_view rest = payload;
  if (!TakeField(&rest, &request->directory) || request->directory.empty()) {
    *error = "bad start request: no working directory";
    return false;
  }
  if (rest.empty() || rest[0] != ' ') {
    *error = "bad start request: no program";
    return false;
  }
  rest.remove_prefix(1);
  if (!TakeField(&rest, &request->command) || request->command.empty()) {
    *error = "bad start request: no program";
    return false;
  }
  if (!rest.empty()) {
    if (rest[0] != ' ') {
      *error = "bad start request: text after the quoted program";
      return false;
    }
    rest.remove_prefix(1);
  }
  request->arguments = std::string(rest);
  std::size_t colon = request->command.find(':');
  if (colon != std::string::npos && colon > 0 &&
      request->command.substr(0, colon).find('/') == std::string::npos) {
    request->host = request->command.substr(0, colon);
    request->program = request->command.substr(colon + 1);
  } else {
    request->host.clear();
    request->program = request->command;
  }
  if (request->program.empty()) {
    *error = "bad start request: no program";
    return false;
  }
  return true;
}

void AppendProcessRecord(std::string* list, std::string_view name, std::string_view address,
                         std::string_view parent, int status) {
  if (!list->empty()) list->push_back(' ');
  list->append(name);
  list->push_back(' ');
  list->append(address);
  list->push_back(' ');
  list->append(parent);
  list->push_back(' ');
  list->append(std::to_string(status));
}

bool NextProcessRecord(std::string_view* rest, ProcessRecord* record) {
  std::string_view text = *rest;
  // A NUL ends the text as the list's readers see it.
  std::size_t nul = text.find('\0');
  if (nul != std::string_view::npos) text = text.substr(0, nul);
  if (text.empty()) return false;
  std::size_t blanks[4];
  int found = 0;
  for (std::size_t i = 0; i < text.size() && found < 4; ++i) {
    if (text[i] == ' ') blanks[found++] = i;
  }
  if (found < 3) return false;
  record->name = text.substr(0, blanks[0]);
  record->address = text.substr(blanks[0] + 1, blanks[1] - blanks[0] - 1);
  record->parent = text.substr(blanks[1] + 1, blanks[2] - blanks[1] - 1);
  std::string_view fourth = text.substr(blanks[2] + 1);
  record->status = LeadingNumber(fourth);
  *rest = found == 4 ? text.substr(blanks[3] + 1) : text.substr(text.size());
  return true;
}

std::string_view ProgramBaseName(std::string_view name) {
  if (name.size() >= 2 && name[1] == ':' &&
      ((name[0] >= 'A' && name[0] <= 'Z') || (name[0] >= 'a' && name[0] <= 'z'))) {
    name.remove_prefix(2);
  }
  std::size_t slash = name.find_last_of("/\\");
  if (slash != std::string_view::npos) name.remove_prefix(slash + 1);
  std::size_t dot = name.rfind('.');
  if (dot != std::string_view::npos && dot > 0 && dot + 1 < name.size()) name = name.substr(0, dot);
  return name;
}

std::string BuildServerQuery(std::string_view owner_address, std::string_view server) {
  return std::string(owner_address) + ":" + std::string(server);
}

void ParseServerQuery(std::string_view text, std::string_view* owner, std::string_view* server) {
  std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    *owner = {};
    *server = text;
    return;
  }
  *owner = text.substr(0, colon);
  std::string_view name = text.substr(colon + 1);
  *server = name.substr(0, name.find(':'));
}

std::string BuildStatusAnswer(int status, std::string_view text) {
  const char* word = StatusWord(status);
  std::string answer = word != nullptr ? word : StatusWord(VARN_STATUS_IDLE);
  if (!text.empty()) {
    answer += ' ';
    answer += text;
  }
  return answer;
}

bool ParseStatusAnswer(std::string_view payload, int* status, std::string_view* text) {
  std::size_t blank = payload.find(' ');
  std::string_view word = payload.substr(0, blank);
  *text = blank == std::string_view::npos ? std::string_view() : payload.substr(blank + 1);
  return StatusFromWord(word, status);
}

std::string SetChanModeCommand(int mode) {
  return std::string(kSetChanModeVerb) + " " + std::to_string(mode);
}

HubCommand ParseHubCommand(std::string_view text) {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  HubCommand command;
  std::size_t blank = text.find(' ');
  command.verb = text.substr(0, blank);
  if (blank != std::string_view::npos) command.argument = text.substr(blank + 1);
  return command;
}

namespace {

constexpr std::string_view kLinkWord = "link";
constexpr std::string_view kLinkVerbs[] = {"want", "open", "ready", "go", "drop", "over"};

// The next blank-separated word of *rest, moving *rest past it.
std::string_view NextWord(std::string_view* rest) {
  std::size_t blank = rest->find(' ');
  std::string_view word = rest->substr(0, blank);
  *rest = blank == std::string_view::npos ? std::string_view() : rest->substr(blank + 1);
  return word;
}

}  // namespace

std::string BuildLinkControl(const LinkControl& control) {
  std::string text(kLinkWord);
  text += ' ';
  text += kLinkVerbs[static_cast<int>(control.verb)];
  if (control.verb == LinkVerb::kOver) return text;
  text += ' ';
  text += control.peer;
  if (control.verb == LinkVerb::kOpen) {
    text += ' ';
    text += control.in_path;
    text += ' ';
    text += control.out_path;
  } else if (control.verb == LinkVerb::kReady) {
    text += control.ok ? " ok" : " fail";
  }
  return text;
}

std::string BuildLinkControl(LinkVerb verb, std::string_view peer, std::string_view in_path,
                             std::string_view out_path, bool ok) {
  LinkControl control;
  control.verb = verb;
  control.peer = peer;
  control.in_path = in_path;
  control.out_path = out_path;
  control.ok = ok;
  return BuildLinkControl(control);
}

bool ParseLinkControl(std::string_view payload, LinkControl* control) {
  std::string_view rest = WithoutPadding(payload);
  if (NextWord(&rest) != kLinkWord) return false;
  std::string_view verb = NextWord(&rest);
  int index = -1;
  for (int i = 0; i < static_cast<int>(std::size(kLinkVerbs)); ++i) {
    if (verb == kLinkVerbs[i]) index = i;
  }
  if (index < 0) return false;
  *control = LinkControl{};
  control->verb = static_cast<LinkVerb>(index);
  if (control->verb == LinkVerb::kOver) return rest.empty();
  control->peer = NextWord(&rest);
  if (control->peer.empty()) return false;
  if (control->verb == LinkVerb::kOpen) {
    control->in_path = NextWord(&rest);
    control->out_path = NextWord(&rest);
    if (control->in_path.empty() || control->out_path.empty()) return false;
  } else if (control->verb == LinkVerb::kReady) {
    std::string_view word = NextWord(&rest);
    if (word != "ok" && word != "fail") return false;
    control->ok = word == "ok";
  }
  return rest.empty();
}

const char* FileModeWord(int mode) {
  return mode >= 1 && mode <= 3 ? kModeWords[mode - 1] : nullptr;
}

const char* FileTypeWord(int type) {
  return type >= 1 && type <= 2 ? kTypeWords[type - 1] : nullptr;
}

bool IsFileRequest(int category) {
  switch (category) {
    case VARN_FOPEN:
    case VARN_FCLOSE:
    case VARN_FREAD:
    case VARN_FWRITE:
    case VARN_FREWIND:
    case VARN_FUNLINK:
    case VARN_FSTAT:
    case VARN_FEOF:
    case VARN_FSEEK:
    case VARN_FTELL:
      return true;
    default:
      return false;
  }
}

bool FileModeFromWord(std::string_view word, int* mode) {
  for (int i = 1; i <= 3; ++i) {
    if (word == kModeWords[i - 1]) {
      *mode = i;
      return true;
    }
  }
  return false;
}

bool FileTypeFromWord(std::string_view word, int* type) {
  for (int i = 1; i <= 2; ++i) {
    if (word == kTypeWords[i - 1]) {
      *type = i;
      return true;
    }
  }
  return false;
}

std::string BuildOpenRequest(std::string_view name, int mode, int type) {
  const char* mode_word = FileModeWord(mode);
  const char* type_word = FileTypeWord(type);
  return std::string(name) + " " + (mode_word ? mode_word : "") + " " +
         (type_word ? type_word : "");
}

bool ParseOpenRequest(std::string_view text, std::string_view* name, std::string_view* mode,
                      std::string_view* type) {
  // The last two words are the mode and the type; the name is the rest.
  std::size_t b2 = text.rfind(' ');
  if (b2 == std::string_view::npos || b2 == 0) return false;
  std::size_t b1 = text.rfind(' ', b2 - 1);
  if (b1 == std::string_view::npos || b1 == 0) return false;
  *name = text.substr(0, b1);
  *mode = text.substr(b1 + 1, b2 - b1 - 1);
  *type = text.substr(b2 + 1);
  return true;
}

std::string BuildReadRequest(long number, long count) {
  return std::to_string(number) + " " + std::to_string(count);
}

bool ParseReadRequest(std::string_view text, long long* number, long long* count) {
  std::string_view f[2];
  return Fields(text, f) && ParseNumber(f[0], number) && ParseNumber(f[1], count);
}

std::string BuildWriteHeader(long number, std::size_t count) {
  return std::to_string(number) + " " + std::to_string(count) + " ";
}

bool ParseWriteRequest(std::string_view payload, long long* number, std::string_view* data) {
  std::string_view f[3];
  long long count = 0;
  if (!Fields(payload, f) || !ParseNumber(f[0], number) || !ParseNumber(f[1], &count) ||
      count < 0 || static_cast<std::size_t>(count) > f[2].size()) {
    return false;
  }
  *data = f[2].substr(0, static_cast<std::size_t>(count));
  return true;
}

std::string BuildSeekRequest(long number, std::int64_t offset, int whence) {
  return std::to_string(number) + " " + std::to_string(offset) + " " + std::to_string(whence);
}

bool ParseSeekRequest(std::string_view text, long long* number, long long* offset,
                      long long* whence) {
  std::string_view f[3];
  return Fields(text, f) && ParseNumber(f[0], number) && ParseNumber(f[1], offset) &&
         ParseNumber(f[2], whence);
}

std::string BuildNumberRequest(long number) { return std::to_string(number); }

bool ParseNumberRequest(std::string_view text, long long* number) {
  return ParseNumber(text, number);
}

std::string_view WithoutPadding(std::string_view payload) {
  while (!payload.empty() && payload.back() == '\0') payload.remove_suffix(1);
  return payload;
}

}  // namespace varn::wire
