// The "VARN" interface object: every operation forwards to the exported
// function of the same name. Registered with the plug-in manager while the
// library loads (plugin/registration.cc).
#include "plugin/interface_objects.h"

#include <cstdint>
#include <cstdio>

#include "varn.h"

namespace varn::plugin {
namespace {

class VARNImpl final : public VARNInterface {
 public:
  int version() override { return VARN_INTERFACE_VERSION; }
  int varn_init(int* argc, char** argv, varnHandle* parent) override {
    return ::varn_init(argc, argv, parent);
  }
  int varn_init_varn_line() override { return ::varn_init_varn_line(); }
  int varn_deinit() override { return ::varn_deinit(); }
  int varn_set_chan_mode(int mode) override { return ::varn_set_chan_mode(mode); }
  int varn_get_chan_mode() override { return ::varn_get_chan_mode(); }
  int varn_send_quon_cmd(const char* command) override { return ::varn_send_quon_cmd(command); }
  int varn_set_callback(VarnCallback callback) override { return ::varn_set_callback(callback); }
  int varn_invoke(varnHandle* h, const char* name, const char* host, const char* args,
                  uint32_t keep, char* error_text, const char* workdir) override {
    return ::varn_invoke(h, name, host, args, keep, error_text, workdir);
  }
  int varn_invoke_nonvelor_program(varnHandle* h, const char* name, const char* host,
                                   const char* args, uint32_t keep, char* error_text, uint32_t kind,
                                   const char* workdir) override {
    return ::varn_invoke_nonvelor_program(h, name, host, args, keep, error_text, kind, workdir);
  }
  int varn_send_msg(varnHandle h, int category, const char* data, int64_t length) override {
    return ::varn_send_msg(h, category, data, length);
  }
  int varn_recv_msg(varnHandle h, uint32_t* category, char* buffer) override {
    return ::varn_recv_msg(h, category, buffer);
  }
  int varn_recv_data(varnHandle h, uint32_t* category, char* buffer, int64_t capacity,
                     uint32_t* length) override {
    return ::varn_recv_data(h, category, buffer, capacity, length);
  }
  int varn_read_data(varnHandle h, uint32_t* category, char* buffer, uint32_t* length) override {
    return ::varn_read_data(h, category, buffer, length);
  }
  int varn_wait(varnHandle h, uint32_t* category, char* buffer, uint32_t* length,
                uint32_t default_category, int force) override {
    return ::varn_wait(h, category, buffer, length, default_category, force);
  }
  bool reserved_16() override { return false; }
  int varn_set_status(uint32_t status, const char* text) override {
    return ::varn_set_status(status, text);
  }
  int varn_query_status(varnHandle h, uint32_t* status, char* text) override {
    return ::varn_query_status(h, status, text);
  }
  int varn_get_parent_info(char* name, char* id) override {
    return ::varn_get_parent_info(name, id);
  }
  int varn_query_server_address(const char* server, char** address) override {
    return ::varn_query_server_address(server, address);
  }
  int varn_connect_server(varnHandle* h, varnHandle owner, const char* server) override {
    return ::varn_connect_server(h, owner, server);
  }
  bool reserved_22() override { return false; }
  int reserved_23() override { return 0; }
  int varn_debug_true() override { return ::varn_debug_true(); }
  int varn_get_error_no() override { return ::varn_get_error_no(); }
  const char* varn_get_error_message(int n) override { return ::varn_get_error_message(n); }
  int varn_chan_type() override { return ::varn_chan_type(); }
  int reserved_28() override { return 0; }
  int varn_is_child_of_daemon() override { return ::varn_is_child_of_daemon(); }
  int varn_query_varn_handle(int* h, const char* address) override {
    return ::varn_query_varn_handle(h, address);
  }
  int varn_query_varn_handle_byname(int* h, const char* name) override {
    return ::varn_query_varn_handle_byname(h, name);
  }
  int varn_query_handle_address(varnHandle h, char** name, char** address) override {
    return ::varn_query_handle_address(h, name, address);
  }
  int varn_query_own_address(char* buffer) override { return ::varn_query_own_address(buffer); }
  int varn_send_status_to_daemon(int status) override {
    return ::varn_send_status_to_daemon(status);
  }
  int varn_sleep(int seconds, int milliseconds) override {
    return ::varn_sleep(seconds, milliseconds);
  }
  bool reserved_36() override { return false; }
  int reserved_37() override { return 0; }
  int varn_connect_process(varnHandle* h, const char* name, const char* address,
                           const char* where) override {
    return ::varn_connect_process(h, name, address, where);
  }
  int reserved_39() override { return 0; }
  int varn_get_query_result(char** cursor, char* name, char* address, char* third,
                            int* number) override {
    return ::varn_get_query_result(cursor, name, address, third, number);
  }
  int varn_prep_query_result(char* list, char** cursor) override {
    return ::varn_prep_query_result(list, cursor);
  }
  int varn_query_pg_process(char** list) override { return ::varn_query_pg_process(list); }
  bool reserved_43() override { return false; }
  bool reserved_44() override { return false; }
  int varn_fputs(FILE* stream, const char* text, int local) override {
    return ::varn_fputs(stream, text, local);
  }
  int varn_readlineP(FILE* stream, char** line, int local) override {
    return ::varn_readlineP(stream, line, local);
  }
  int varn_file_fclose(FILE* stream, int local) override {
    return ::varn_file_fclose(stream, local);
  }
  FILE* varn_file_fopen(const char* name, const char* mode, int local) override {
    return ::varn_file_fopen(name, mode, local);
  }
  int varn_start_time() override { return ::varn_start_time(); }
  int varn_total_time(uint32_t* seconds, uint32_t* microseconds) override {
    return ::varn_total_time(seconds, microseconds);
  }
  int varn_send_trace_msg(const char* text) override { return ::varn_send_trace_msg(text); }
  int varn_put_msg_in_queue(varnHandle h, int category, const char* data, int64_t length) override {
    return ::varn_put_msg_in_queue(h, category, data, length);
  }
  bool reserved_53() override { return false; }
  int varn_deinit_entry(varnHandle h) override { return ::varn_deinit_entry(h); }
  uint64_t varn_fread(FILE* stream, uint64_t size, uint64_t count, void* buffer,
                      int local) override {
    return ::varn_fread(stream, size, count, buffer, local);
  }
  int varn_fseek(FILE* stream, int32_t offset, int whence, int local) override {
    return ::varn_fseek(stream, offset, whence, local);
  }
  int64_t varn_ftell(FILE* stream, int local) override { return ::varn_ftell(stream, local); }
  uint64_t varn_fwrite(FILE* stream, uint64_t size, uint64_t count, const void* buffer,
                       int local) override {
    return ::varn_fwrite(stream, size, count, buffer, local);
  }
  int varn_rewind(FILE* stream, int local) override { return ::varn_rewind(stream, local); }
  int varn_feof(FILE* stream, int local) override { return ::varn_feof(stream, local); }
  char* varn_fgets(FILE* stream, char* buffer, uint32_t n, int local) override {
    return ::varn_fgets(stream, buffer, n, local);
  }
  int varn_dataset_is_merged() override { return ::varn_dataset_is_merged(); }
  int varn_dataset_invoke() override { return ::varn_dataset_invoke(); }
  int varn_status_open_session() override { return ::varn_status_open_session(); }
  int varn_status_display_de(uint32_t session, uint32_t kind, const char* text1, const char* text2,
                             const char* text3) override {
    return ::varn_status_display_de(session, kind, text1, text2, text3);
  }
  bool reserved_66() override { return false; }
  int varn_status_get_varnhandle() override { return ::varn_status_get_varnhandle(); }
  int varn_dds_invoke() override { return ::varn_dds_invoke(); }
  int varn_dftool_invoke() override { return ::varn_dftool_invoke(); }
  int varn_instrument_invoke() override { return ::varn_instrument_invoke(); }
  int varn_help_invoke() override { return ::varn_help_invoke(); }
  int varn_help_get_handle() override { return ::varn_help_get_handle(); }
  int varn_help_kill() override { return ::varn_help_kill(); }
  int varn_help_get_version() override { return ::varn_help_get_version(); }
  int varn_help_open(const char* topic, const char* book, int* busy, char* message) override {
    return ::varn_help_open(topic, book, busy, message);
  }
  int varn_help_manual(const char* topic, int* busy, char* message) override {
    return ::varn_help_manual(topic, busy, message);
  }
  int varn_help_open_url(const char* address) override { return ::varn_help_open_url(address); }
  int varn_help_weblinked_error(const char* text) override {
    return ::varn_help_weblinked_error(text);
  }
  int varn_fopen(FILE** stream, const char* name, int mode, int text, int local) override {
    return ::varn_fopen(stream, name, mode, text, local);
  }
  int varn_fclose(FILE* stream, int local) override { return ::varn_fclose(stream, local); }
  void KOnvtMainLoop() override { ::KOnvtMainLoop(); }
  int varn_kill(varnHandle h) override { return ::varn_kill(h); }
  int varn_status_show_session(uint32_t session) override {
    return ::varn_status_show_session(session);
  }
  int varn_truly_recv_data(varnHandle h, uint32_t* category, char* buffer, int64_t capacity,
                           uint32_t* length) override {
    return ::varn_truly_recv_data(h, category, buffer, capacity, length);
  }
  int varn_wait_for_any_from_handle(varnHandle h, uint32_t* category, char* buffer,
                                    uint32_t* length, uint32_t default_category,
                                    int force) override {
    return ::varn_wait_for_any_from_handle(h, category, buffer, length, default_category, force);
  }
  int varn_dds_invoke_with_args(const char* args) override {
    return ::varn_dds_invoke_with_args(args);
  }
};

}  // namespace

VARNInterface* NewVarnInterface() { return new (std::nothrow) VARNImpl; }

}  // namespace varn::plugin
