// What a Mirl script sees of the library: the function vocabulary and the
// constants of the message kinds, as registered with the Mirl runtime.
#ifndef VARN_SCRIPT_VOCABULARY_H_
#define VARN_SCRIPT_VOCABULARY_H_

#include "host/mirl/mirl.h"

namespace varn::script {

extern const AutilVocabulary aquon_function_vocabulary;
extern const AutilVocabulary mirlquon_constant_vocabulary;

// The functions of the vocabulary, in its order. Each reads the script's
// arguments through the runtime and returns a value (null: none).
namespace mirl_functions {
MIRLValue* create_server();
MIRLValue* delete_server();
MIRLValue* register_server();
MIRLValue* clear_server();
MIRLValue* start_server();
MIRLValue* server_running();
MIRLValue* query_server_address();
MIRLValue* send_server_command();
MIRLValue* send_server_error();
MIRLValue* send_server_data();
MIRLValue* send_server_datablock();
MIRLValue* send_server_done();
MIRLValue* send_server_interrupt();
MIRLValue* send_server_kill();
MIRLValue* read_server_wait();
MIRLValue* push_message_handler();
MIRLValue* pop_message_handler();
MIRLValue* wait_for_done();
MIRLValue* get_done_msg();
MIRLValue* set_server_parms();
MIRLValue* query_server_info();
MIRLValue* connect_server();
MIRLValue* connect_server_by_name();
MIRLValue* query_server_status();
MIRLValue* query_all_server_handles();
MIRLValue* open_status_session();
MIRLValue* send_status_text();
MIRLValue* mirl_open_url();
MIRLValue* weblinked_error();
MIRLValue* system();
MIRLValue* tracepoint();
}  // namespace mirl_functions

}  // namespace varn::script

#endif  // VARN_SCRIPT_VOCABULARY_H_
