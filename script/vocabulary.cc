#include "script/vocabulary.h"

#include <cstdint>

#include "script/message_kinds.h"

namespace varn::script {
namespace {

namespace fn = mirl_functions;

AutilVocEntry Function(const char* name, AutilFunction function) {
  return {name, AutilFunctionEntry, reinterpret_cast<intptr_t>(function), {0, 0, 0, 0}};
}

constexpr AutilVocEntry Constant(const char* name, int value) {
  return {name, AutilConstantEntry, value, {0, 0, 0, 0}};
}

const AutilVocEntry kFunctions[] = {
    Function("create_server", fn::create_server),
    Function("delete_server", fn::delete_server),
    Function("register_server", fn::register_server),
    Function("clear_server", fn::clear_server),
    Function("start_server", fn::start_server),
    Function("server_running", fn::server_running),
    Function("query_server_address", fn::query_server_address),
    Function("send_server_command", fn::send_server_command),
    Function("send_server_error", fn::send_server_error),
    Function("send_server_data", fn::send_server_data),
    Function("send_server_datablock", fn::send_server_datablock),
    Function("send_server_done", fn::send_server_done),
    Function("send_server_interrupt", fn::send_server_interrupt),
    Function("send_server_kill", fn::send_server_kill),
    Function("read_server_wait", fn::read_server_wait),
    Function("push_message_handler", fn::push_message_handler),
    Function("pop_message_handler", fn::pop_message_handler),
    Function("wait_for_done", fn::wait_for_done),
    Function("get_done_msg", fn::get_done_msg),
    Function("set_server_parms", fn::set_server_parms),
    Function("query_server_info", fn::query_server_info),
    Function("connect_server", fn::connect_server),
    Function("connect_server_by_name", fn::connect_server_by_name),
    Function("query_server_status", fn::query_server_status),
    Function("query_all_server_handles", fn::query_all_server_handles),
    Function("open_status_session", fn::open_status_session),
    Function("send_status_text", fn::send_status_text),
    Function("mirl_open_url", fn::mirl_open_url),
    Function("weblinked_error", fn::weblinked_error),
    Function("system", fn::system),
    Function("tracepoint", fn::tracepoint),
};

constexpr AutilVocEntry kConstants[] = {
    Constant("MIRLQUON_COMMAND", kKindCommand),
    Constant("MIRLQUON_DATA", kKindData),
    Constant("MIRLQUON_DATA_BEGIN", kKindDataBegin),
    Constant("MIRLQUON_DATA_CONTINUE", kKindDataContinue),
    Constant("MIRLQUON_DATA_END", kKindDataEnd),
    Constant("MIRLQUON_DONE", kKindDone),
    Constant("MIRLQUON_ERROR", kKindError),
    Constant("MIRLQUON_DEATH", kKindDeath),
};

}  // namespace

const AutilVocabulary aquon_function_vocabulary = {"MIRL", 0, kFunctions,
                                                   sizeof kFunctions / sizeof kFunctions[0]};
const AutilVocabulary mirlquon_constant_vocabulary = {"MIRL", 0, kConstants,
                                                      sizeof kConstants / sizeof kConstants[0]};

}  // namespace varn::script
