// Waiting for a server's next message and for its DONE.
#include <algorithm>
#include <cstring>
#include <string>

#include "script/handlers.h"
#include "script/message_kinds.h"
#include "script/script_errors.h"
#include "script/server_table.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace script = varn::script;
using script::Script;
using script::Server;
using script::ValidServer;
using varn::core::OnApplicationThread;

namespace {

// What reaches a caller of a read: at most this many characters.
constexpr int kReplyLimit = 5799;

// The read step: waits for the busy server's next message. *category is 0
// when nothing is awaited (debug mode, a server that is not busy or has no
// handle). The whole payload lands in *payload.
int ReadStep(int index, uint32_t* category, std::string* payload) REQUIRES(varn::core::kLibrary) {
  *category = 0;
  payload->clear();
  if (varn_debug_true()) return 1;
  if (!ValidServer(index)) {
    script::RaiseScriptError(script::kNoServerSet);
    return 0;
  }
  const script::AquonServer& server = Server(index);
  if (server.busy == 0 || server.handle < 0) return 1;
  int handle = server.handle;
  std::unique_ptr<char[]> buffer = script::PacketBuffer();
  uint32_t length = 0;
  if (!varn_wait(handle, category, buffer.get(), &length, VARN_DONE, 0)) {
    script::RaiseVarnError();
    return 0;
  }
  payload->assign(buffer.get(), std::strlen(buffer.get()));
  if (*category == VARN_DONE || *category == VARN_ERROR || *category == VARN_SRVR_ERR) {
    // The command is over, however its answer was read: a later read would
    // otherwise wait for an answer that never comes.
    if (ValidServer(index)) Server(index).busy = 0;
    if (*category == VARN_SRVR_ERR && ValidServer(index)) script::NoteDeath(index);
  }
  if (*category == VARN_BEGIN) {
    // A block from the server (the stream of its reply, say): its pieces
    // arrive now and cannot wait in the queue, so the block is read to its
    // END at once and handed to the server's handler, as the callback
    // would. The caller sees the BEGIN with its title.
    aquon_handle_message(handle, VARN_BEGIN, payload->c_str());
  }
  return 1;
}

// Copies at most min(capacity, 5799) characters and a NUL.
int CopyOut(const std::string& text, char* buffer, int capacity) {
  int n = std::min(
      {capacity, static_cast<int>(std::min<std::size_t>(text.size(), kReplyLimit)), kReplyLimit});
  std::memcpy(buffer, text.data(), static_cast<std::size_t>(n));
  buffer[n] = '\0';
  return n;
}

bool EndsTheWait(uint32_t category) {
  return category == VARN_KILL || category == VARN_INTR || category == VARN_DONE ||
         category == VARN_ERROR || category == VARN_SRVR_ERR;
}

int WaitForDone(int index, char* buffer) REQUIRES(varn::core::kLibrary) {
  if (buffer != nullptr) buffer[0] = '\0';
  if (varn_debug_true()) return 1;
  if (!ValidServer(index)) {
    script::RaiseScriptError(script::kNoServerSet);
    return 0;
  }
  uint32_t category = 0;
  std::string payload;
  bool read = false;
  for (;;) {
    read = ReadStep(index, &category, &payload) != 0;
    if (!read) break;
    if (category == 0) return 1;  // nothing is awaited
    if (EndsTheWait(category)) break;
    if (category == VARN_BEGIN) continue;  // the block has been handled
    // A command or data that came meanwhile goes to the server's handler
    // now, as the callback would hand it on, and a command is answered.
    // Put back into the queue it would reach the callback only once
    // something reads the queue without waiting for this server, and a
    // server that waits for our answer to its command would never send the
    // DONE awaited here.
    if (!ValidServer(index)) break;
    aquon_handle_message(Server(index).handle, static_cast<int>(category), payload.c_str());
  }
  std::string text = payload.substr(0, kReplyLimit);
  text.resize(std::strlen(text.c_str()));
  Script().aquon_last_done_message = text;
  if (ValidServer(index)) Server(index).busy = 0;
  if (!read) return 0;
  switch (category) {
    case VARN_DONE:
      if (buffer != nullptr) CopyOut(text, buffer, kReplyLimit);
      return 1;
    case VARN_ERROR:
      script::RaiseScriptError(script::kServerError, "%s", text.c_str());
      return 0;
    case VARN_SRVR_ERR:
      // The server's process ended: the error says the connection closed.
      VarnErrorNo = VARN_E_CLOSED;
      script::RaiseVarnError();
      return 0;
    default:  // KILL, INTR
      return 0;
  }
}

}  // namespace

extern "C" int aquon_read_server_wait(int index, char* buffer, int* length, int* kind) noexcept {
  OnApplicationThread();
  bool give = buffer != nullptr && length != nullptr && *length > 0;
  if (give) buffer[0] = '\0';
  uint32_t category = 0;
  std::string payload;
  int r = ReadStep(index, &category, &payload);
  if (kind != nullptr) *kind = script::KindOfCategory(static_cast<int>(category));
  if (length != nullptr) {
    if (r && give) {
      *length = CopyOut(payload, buffer, *length);
    } else {
      *length = 0;
    }
  }
  return r;
}

extern "C" int aquon_wait_for_done(int index) noexcept {
  OnApplicationThread();
  return WaitForDone(index, nullptr);
}

extern "C" int aquon_wait_for_done_msg(int index, char* buffer) noexcept {
  OnApplicationThread();
  return WaitForDone(index, buffer);
}

extern "C" int aquon_set_command_wait(int flag) noexcept {
  OnApplicationThread();
  int previous = Script().aquon_command_wait;
  Script().aquon_command_wait = flag;
  return previous;
}
