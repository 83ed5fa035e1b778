/* The library's interface objects, as plug-ins of the environment see them.
 *
 * While the library loads it registers two objects with the plug-in
 * manager: "VARN", the messaging interface, and "RemoteFile", a small file
 * interface. A plug-in built apart from the library asks the manager for
 * them and calls their operations; it needs this header and the plug-in
 * manager, not the library's exported functions:
 *
 *   auto* varn = static_cast<VARNInterface*>(plugin_manager::GetInterface("VARN"));
 *   if (varn != nullptr && varn->version() == VARN_INTERFACE_VERSION) ...
 *
 * Every operation forwards its arguments unchanged to the exported function
 * of the same name (varn.h) and returns its result; the reserved slots do
 * nothing and return false or 0. The order of the operations is the order
 * of the objects' tables and never changes: new operations are only ever
 * added at the end, with a new version.
 */
#ifndef VARN_PLUGIN_H_
#define VARN_PLUGIN_H_

#include <stdio.h>

#include "varn.h"

#define VARN_INTERFACE_VERSION 1004
#define VARN_REMOTE_FILE_INTERFACE_VERSION 1001

class VARNInterface {
 public:
  virtual ~VARNInterface() = default;  // slot 0
  virtual int version() = 0;           // slot 1: VARN_INTERFACE_VERSION
  virtual int varn_init(int* argc, char** argv, varnHandle* parent) = 0;  // slot 2
  virtual int varn_init_varn_line() = 0;                                  // slot 3
  virtual int varn_deinit() = 0;                                          // slot 4
  virtual int varn_set_chan_mode(int mode) = 0;                           // slot 5
  virtual int varn_get_chan_mode() = 0;                                   // slot 6
  virtual int varn_send_quon_cmd(const char* command) = 0;                // slot 7
  virtual int varn_set_callback(VarnCallback callback) = 0;               // slot 8
  virtual int varn_invoke(varnHandle* h, const char* name, const char* host, const char* args,
                          uint32_t keep, char* error_text, const char* workdir) = 0;  // slot 9
  virtual int varn_invoke_nonvelor_program(varnHandle* h, const char* name, const char* host,
                                           const char* args, uint32_t keep, char* error_text,
                                           uint32_t kind, const char* workdir) = 0;  // slot 10
  virtual int varn_send_msg(varnHandle h, int category, const char* data,
                            int64_t length) = 0;                                  // slot 11
  virtual int varn_recv_msg(varnHandle h, uint32_t* category, char* buffer) = 0;  // slot 12
  virtual int varn_recv_data(varnHandle h, uint32_t* category, char* buffer, int64_t capacity,
                             uint32_t* length) = 0;  // slot 13
  virtual int varn_read_data(varnHandle h, uint32_t* category, char* buffer,
                             uint32_t* length) = 0;  // slot 14
  virtual int varn_wait(varnHandle h, uint32_t* category, char* buffer, uint32_t* length,
                        uint32_t default_category, int force) = 0;                // slot 15
  virtual bool reserved_16() = 0;                                                 // slot 16
  virtual int varn_set_status(uint32_t status, const char* text) = 0;             // slot 17
  virtual int varn_query_status(varnHandle h, uint32_t* status, char* text) = 0;  // slot 18
  virtual int varn_get_parent_info(char* name, char* id) = 0;                     // slot 19
  virtual int varn_query_server_address(const char* server, char** address) = 0;  // slot 20
  virtual int varn_connect_server(varnHandle* h, varnHandle owner,
                                  const char* server) = 0;                               // slot 21
  virtual bool reserved_22() = 0;                                                        // slot 22
  virtual int reserved_23() = 0;                                                         // slot 23
  virtual int varn_debug_true() = 0;                                                     // slot 24
  virtual int varn_get_error_no() = 0;                                                   // slot 25
  virtual const char* varn_get_error_message(int n) = 0;                                 // slot 26
  virtual int varn_chan_type() = 0;                                                      // slot 27
  virtual int reserved_28() = 0;                                                         // slot 28
  virtual int varn_is_child_of_daemon() = 0;                                             // slot 29
  virtual int varn_query_varn_handle(int* h, const char* address) = 0;                   // slot 30
  virtual int varn_query_varn_handle_byname(int* h, const char* name) = 0;               // slot 31
  virtual int varn_query_handle_address(varnHandle h, char** name, char** address) = 0;  // slot 32
  virtual int varn_query_own_address(char* buffer) = 0;                                  // slot 33
  virtual int varn_send_status_to_daemon(int status) = 0;                                // slot 34
  virtual int varn_sleep(int seconds, int milliseconds) = 0;                             // slot 35
  virtual bool reserved_36() = 0;                                                        // slot 36
  virtual int reserved_37() = 0;                                                         // slot 37
  virtual int varn_connect_process(varnHandle* h, const char* name, const char* address,
                                   const char* where) = 0;  // slot 38
  virtual int reserved_39() = 0;                            // slot 39
  virtual int varn_get_query_result(char** cursor, char* name, char* address, char* third,
                                    int* number) = 0;                                // slot 40
  virtual int varn_prep_query_result(char* list, char** cursor) = 0;                 // slot 41
  virtual int varn_query_pg_process(char** list) = 0;                                // slot 42
  virtual bool reserved_43() = 0;                                                    // slot 43
  virtual bool reserved_44() = 0;                                                    // slot 44
  virtual int varn_fputs(FILE* stream, const char* text, int local) = 0;             // slot 45
  virtual int varn_readlineP(FILE* stream, char** line, int local) = 0;              // slot 46
  virtual int varn_file_fclose(FILE* stream, int local) = 0;                         // slot 47
  virtual FILE* varn_file_fopen(const char* name, const char* mode, int local) = 0;  // slot 48
  virtual int varn_start_time() = 0;                                                 // slot 49
  virtual int varn_total_time(uint32_t* seconds, uint32_t* microseconds) = 0;        // slot 50
  virtual int varn_send_trace_msg(const char* text) = 0;                             // slot 51
  virtual int varn_put_msg_in_queue(varnHandle h, int category, const char* data,
                                    int64_t length) = 0;  // slot 52
  virtual bool reserved_53() = 0;                         // slot 53
  virtual int varn_deinit_entry(varnHandle h) = 0;        // slot 54
  virtual uint64_t varn_fread(FILE* stream, uint64_t size, uint64_t count, void* buffer,
                              int local) = 0;                                       // slot 55
  virtual int varn_fseek(FILE* stream, int32_t offset, int whence, int local) = 0;  // slot 56
  virtual int64_t varn_ftell(FILE* stream, int local) = 0;                          // slot 57
  virtual uint64_t varn_fwrite(FILE* stream, uint64_t size, uint64_t count, const void* buffer,
                               int local) = 0;                                      // slot 58
  virtual int varn_rewind(FILE* stream, int local) = 0;                             // slot 59
  virtual int varn_feof(FILE* stream, int local) = 0;                               // slot 60
  virtual char* varn_fgets(FILE* stream, char* buffer, uint32_t n, int local) = 0;  // slot 61
  virtual int varn_dataset_is_merged() = 0;                                         // slot 62
  virtual int varn_dataset_invoke() = 0;                                            // slot 63
  virtual int varn_status_open_session() = 0;                                       // slot 64
  virtual int varn_status_display_de(uint32_t session, uint32_t kind, const char* text1,
                                     const char* text2, const char* text3) = 0;  // slot 65
  virtual bool reserved_66() = 0;                                                // slot 66
  virtual int varn_status_get_varnhandle() = 0;                                  // slot 67
  virtual int varn_dds_invoke() = 0;                                             // slot 68
  virtual int varn_dftool_invoke() = 0;                                          // slot 69
  virtual int varn_instrument_invoke() = 0;                                      // slot 70
  virtual int varn_help_invoke() = 0;                                            // slot 71
  virtual int varn_help_get_handle() = 0;                                        // slot 72
  virtual int varn_help_kill() = 0;                                              // slot 73
  virtual int varn_help_get_version() = 0;                                       // slot 74
  virtual int varn_help_open(const char* topic, const char* book, int* busy,
                             char* message) = 0;                                  // slot 75
  virtual int varn_help_manual(const char* topic, int* busy, char* message) = 0;  // slot 76
  virtual int varn_help_open_url(const char* address) = 0;                        // slot 77
  virtual int varn_help_weblinked_error(const char* text) = 0;                    // slot 78
  virtual int varn_fopen(FILE** stream, const char* name, int mode, int text,
                         int local) = 0;                       // slot 79
  virtual int varn_fclose(FILE* stream, int local) = 0;        // slot 80
  virtual void KOnvtMainLoop() = 0;                            // slot 81
  virtual int varn_kill(varnHandle h) = 0;                     // slot 82
  virtual int varn_status_show_session(uint32_t session) = 0;  // slot 83
  virtual int varn_truly_recv_data(varnHandle h, uint32_t* category, char* buffer, int64_t capacity,
                                   uint32_t* length) = 0;  // slot 84
  virtual int varn_wait_for_any_from_handle(varnHandle h, uint32_t* category, char* buffer,
                                            uint32_t* length, uint32_t default_category,
                                            int force) = 0;     // slot 85
  virtual int varn_dds_invoke_with_args(const char* args) = 0;  // slot 86
};

/* The file operations work on a remote stream when the process is
   connected to the hub by a socket, on a local file otherwise. */
class RemoteFileInterface {
 public:
  virtual ~RemoteFileInterface() = default;  // slot 0
  virtual int version() = 0;                 // slot 1: VARN_REMOTE_FILE_INTERFACE_VERSION
  /* varn_file_fopen(name, mode, 0) */
  virtual FILE* fopen(const char* name, const char* mode) = 0;
  /* varn_file_fclose(stream, 0) */
  virtual int fclose(FILE* stream) = 0;
  /* varn_fputs(stream, text, 0): the text comes first here */
  virtual int fputs(const char* text, FILE* stream) = 0;
  /* The next line (varn_readlineP(stream, line, 0)), the line buffer
     prepared first; true when a line was read. */
  virtual bool readline(char** line, FILE* stream) = 0;
};

#endif /* VARN_PLUGIN_H_ */
