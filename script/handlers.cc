// Messages from servers: the library's callback, the handler stacks, and
// the answers to what a server sends us as its client (a command or a data
// block).
#include "script/handlers.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "host/memory.h"
#include "host/mirl/mirl.h"
#include "script/message_kinds.h"
#include "script/script_errors.h"
#include "script/server_table.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace varn::script {

std::unique_ptr<char[]> PacketBuffer() {
  // Room for the longest payload a packet can carry: the library copies a
  // whole message into the buffer it is given.
  return std::unique_ptr<char[]>(new char[wire::kPacketLimit + 1]);
}

void CallMirlHandler(void* data, int index, int kind, const char* payload) {
  if (data == nullptr) return;
  MIRLValue* text = aval_create_string(payload);
  MIRLValue* server = aval_create_raw_integer(index);
  MIRLValue* kind_value = aval_create_raw_integer(kind);
  arun_push_temp(static_cast<MIRLValue*>(data));
  arun_push_temp(server);
  arun_push_temp(kind_value);
  arun_push_temp(text);
  arun_call_op(ArunOpCall, 4);
  aval_free_value(server);
  aval_free_value(kind_value);
  aval_free_value(text);
}

void NoteDeath(int index) {
  ResetServer(index);
  AquonServer& server = Server(index);
  server.handle = -1;
  // The status session is opened again the next time it is needed.
  if (server.name == "status" || server.name == "dravosess") Script().aquon_status_started = 0;
}

namespace {

bool SendReply(int handle, int category, const char* text) REQUIRES(core::kLibrary) {
  if (varn_send_msg(handle, category, text, text != nullptr ? std::strlen(text) : 0)) return true;
  RaiseVarnError();
  return false;
}

// An incoming block: its title has been handed on; the pieces are read to
// the END and each handed on, and the block is answered with DONE carrying
// the done text a handler set meanwhile.
int ReadIncomingBlock(int handle) REQUIRES(core::kLibrary) {
  std::size_t capacity = 5800;
  char* buffer = static_cast<char*>(host::gmem_ko_malloc(capacity + 1));
  if (buffer == nullptr) {
    aerr_memory_error();
    return 1;
  }
  int result = 1;
  for (;;) {
    uint32_t category = 0;
    uint32_t length = 0;
    if (!varn_recv_data(handle, &category, buffer, static_cast<int64_t>(capacity), &length)) {
      if (varn_get_error_no() != VARN_E_TOO_LONG) {
        RaiseVarnError();
        result = 0;
        break;
      }
      // The piece does not fit: read it again into a buffer that holds it.
      char* larger = static_cast<char*>(host::gmem_ko_malloc(std::size_t{length} + 2));
      if (larger == nullptr) {
        aerr_memory_error();
        result = 0;
        break;
      }
      host::gmem_ko_free(buffer);
      buffer = larger;
      capacity = std::size_t{length} + 1;
      if (!varn_recv_data(handle, &category, buffer, static_cast<int64_t>(capacity), &length)) {
        RaiseVarnError();
        result = 0;
        break;
      }
    }
    buffer[length] = '\0';
    if (category == VARN_END) {
      aquon_execute_message(handle, kKindDataEnd, buffer);
      break;
    }
    aquon_execute_message(handle, kKindDataContinue, buffer);
  }
  // The answer goes out even when the block could not be read to its end.
  int index = ServerWithHandle(handle);
  std::string done = index >= 0 ? Server(index).done_text : std::string();
  SendReply(handle, VARN_DONE, done.c_str());
  index = ServerWithHandle(handle);
  if (index >= 0) Server(index).done_text.clear();
  host::gmem_ko_free(buffer);
  return result;
}

// The pieces of a refused block are read and dropped: left in the stream
// they would meet the next wait on the server, which cannot take them.
void DropIncomingBlock(int handle) REQUIRES(core::kLibrary) {
  std::unique_ptr<char[]> buffer = PacketBuffer();
  for (;;) {
    uint32_t category = 0;
    uint32_t length = 0;
    if (!varn_recv_data(handle, &category, buffer.get(), -1, &length) || category == VARN_END) {
      return;
    }
  }
}

}  // namespace

void MessageCallback(int handle) {
  core::OnApplicationThread();
  std::unique_ptr<char[]> buffer = PacketBuffer();
  uint32_t category = 0;
  if (varn_recv_msg(handle, &category, buffer.get())) {
    switch (category) {
      case VARN_KILL:
        varn_deinit();  // ends the process
        return;
      case VARN_INTR:
        // Interrupts reach the callback on the library's input thread while
        // the application's thread is held; a script error pending there
        // belongs to that thread and is left for it to report.
        return;
      case VARN_CMD:
      case VARN_DONE:
      case VARN_BEGIN:
      case VARN_DATA:
      case VARN_ERROR:
      case VARN_SRVR_ERR:
        aquon_handle_message(handle, static_cast<int>(category), buffer.get());
        break;
      default:
        break;
    }
  }
  aerr_report();
}

}  // namespace varn::script

namespace script = varn::script;
using script::Script;
using script::Server;
using script::ValidServer;
using varn::core::OnApplicationThread;

extern "C" int aquon_push_handler(int index, AquonHandlerFn function, void* data) noexcept {
  OnApplicationThread();
  if (!ValidServer(index)) return 0;
  Server(index).handlers.push_back({function, data});
  return 1;
}

extern "C" int aquon_pop_handler(int index, void** data) noexcept {
  OnApplicationThread();
  if (!ValidServer(index) || Server(index).handlers.empty()) return 0;
  if (data != nullptr) *data = Server(index).handlers.back().data;
  Server(index).handlers.pop_back();
  return 1;
}

extern "C" int aquon_handles_this_message(int handle) noexcept {
  OnApplicationThread();
  return script::ServerWithHandle(handle) >= 0 ? 1 : 0;
}

extern "C" int aquon_execute_message(int handle, int kind, const char* payload) noexcept {
  OnApplicationThread();
  int index = script::ServerWithHandle(handle);
  if (index < 0) return 1;
  script::AquonServer& server = Server(index);
  if (server.busy != 0 &&
      (kind == script::kKindDone || kind == script::kKindError || kind == script::kKindDeath)) {
    server.busy = 0;
  }
  if (kind == script::kKindDeath) script::NoteDeath(index);
  if (Server(index).handlers.empty() || Server(index).handlers.back().function == nullptr) {
    return 1;
  }
  // Only the top entry is called. A copy: the handler may push, pop or add
  // servers.
  script::AquonHandler top = Server(index).handlers.back();
  top.function(top.data, index, kind, payload != nullptr ? payload : "");
  if (AerrFlag == 0) return 1;
  aerr_add_location();
  aerr_report();
  std::string name = ValidServer(index) ? Server(index).name : std::string();
  aerr_process_warning("MIRL", script::kReceiveWarning, "error receiving server message",
                       name.c_str());
  return 0;
}

extern "C" int aquon_handle_message(int handle, int category, const char* payload) noexcept {
  OnApplicationThread();
  if (!aquon_handles_this_message(handle)) return 0;
  int result = 1;
  switch (category) {
    case VARN_CMD: {
      int r = aquon_execute_message(handle, script::kKindCommand, payload);
      script::SendReply(handle, r ? VARN_DONE : VARN_ERROR, nullptr);
      break;
    }
    case VARN_DONE:
    case VARN_DATA:
    case VARN_ERROR:
    case VARN_SRVR_ERR:
      aquon_execute_message(handle, script::KindOfCategory(category), payload);
      break;
    case VARN_BEGIN: {
      int index = script::ServerWithHandle(handle);
      Server(index).done_text.clear();
      if (!aquon_execute_message(handle, script::kKindDataBegin, payload)) {
        // The handler refused the block: it is answered with ERROR and its
        // pieces are not handed on.
        script::SendReply(handle, VARN_ERROR, nullptr);
        script::DropIncomingBlock(handle);
        break;
      }
      result = script::ReadIncomingBlock(handle);
      break;
    }
    default:  // END outside a block, and categories that are not messages
      result = 0;
      break;
  }
  aerr_report();
  return result;
}
