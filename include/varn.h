/* Varn: the message library that every process of the design environment
 * loads to talk to the others through the hub, Quon.
 *
 * Conventions: calls return 1 for success and 0 for failure (lookups return
 * a handle or -1) and leave the reason in VarnErrorNo; varn_get_error_message
 * turns it into text. Once VarnErrorNo is VARN_E_DAEMON_GONE (43) the hub is
 * gone and most calls return 0 at once, leaving it at 43.
 *
 * Threads: every call is made from the application's thread (the one that
 * called varn_init). The callback runs on that thread, except for INTR and
 * KILL, whose callback runs on the library's input thread while the
 * application's thread is held still: that callback must not wait for
 * anything the held thread may own (a lock, a function-local static being
 * built on first use). Text returned from the tables points
 * into library memory and stays valid until the row changes.
 */
#ifndef VARN_H_
#define VARN_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "varn_codes.h"
#include "varn_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Handles, rows and tables ---------------------------------------- */

/* Index of a row of VarnMessage; -1 means no process (or Quon itself). */
typedef int varnHandle;

#define VARN_MAX_ENTRIES 256
#define VARN_DEFAULT_ENTRIES 40
#define VARN_FILE_ENTRIES 31 /* rows 0..29 remote files, row 30 the Quon reply row */
#define VARN_QUON_REPLY_ROW 30
#define VARN_STATUS_TEXT_SIZE 5800
#define VARN_LINE_SIZE 1025

/* Row states. */
#define ENTRY_FREE 0
#define ENTRY_ACTIVE 1
#define ENTRY_EXITED 2
#define ENTRY_DISABLED 3
#define ENTRY_STARTING 4

/* Channel types (VarnChanType). */
#define VARN_CHAN_SOCKET 0
#define VARN_CHAN_PIPE 1
#define VARN_CHAN_STANDALONE 2

/* Kinds of programs that do not speak the protocol (nonvelor_kind). */
#define VARN_NONVELOR_INVOKER 0
#define VARN_NONVELOR_INVOKERE 1
#define VARN_NONVELOR_INVOKERN 3

typedef struct VarnEntry {
  uint32_t state;
  char* address;
  char* local_address;
  uint32_t last_category;
  char* last_data;
  int64_t last_data_len;
  uint32_t keep_entry;
  uint32_t non_velor;
  uint32_t send_stream;
  uint32_t recv_stream;
  uint32_t owned;
  char* host;
  char* name;
  char* args;
  FILE* debug_input;
  uint32_t enabled_by_address;
  uint32_t waiting;
  uint32_t nonvelor_kind;
  char* workdir;
  uint32_t immediate_intr_kill;
} VarnEntry;

typedef struct VarnFileEntry {
  uint32_t state;
  char* name;
  int32_t remote_fd;
  int32_t mode;
  int32_t type;
  int32_t last_category;
  char* last_data;
  uint64_t last_data_len;
  uint32_t send_stream;
  uint32_t recv_stream;
} VarnFileEntry;

/* ---- Exported data ----------------------------------------------------- */

VARN_EXPORT extern VarnEntry VarnMessage[VARN_MAX_ENTRIES];
VARN_EXPORT extern int VarnErrorNo;
VARN_EXPORT extern int VarnStatus;
VARN_EXPORT extern int VarnChanType;
VARN_EXPORT extern int VarnChanMode;
VARN_EXPORT extern int VarnIntrSignal;
VARN_EXPORT extern int VarnSigusr1Count;
VARN_EXPORT extern int VarnSigusr1Caught;
VARN_EXPORT extern int VarnSleepSecond;
VARN_EXPORT extern int VarnRecvedQuonStatusIdle;
VARN_EXPORT extern int IfDetachProtocol;

typedef void (*VarnCallback)(int handle);

/* ---- Library state and the process entry table ------------------------- */

VARN_EXPORT int varnP_get_new_varnHandle(int* h) VARN_NOEXCEPT;
VARN_EXPORT int varnP_find_entry_exact(const char* address, int exact) VARN_NOEXCEPT;
VARN_EXPORT void varnP_deinit_entry(varnHandle h) VARN_NOEXCEPT;
VARN_EXPORT int varn_deinit_entry(varnHandle h) VARN_NOEXCEPT;
VARN_EXPORT int varn_num_chan(int n) VARN_NOEXCEPT;
VARN_EXPORT int varn_query_varn_handle(int* h, const char* address) VARN_NOEXCEPT;
VARN_EXPORT int varn_query_varn_handle_byname(int* h, const char* name) VARN_NOEXCEPT;
VARN_EXPORT int varn_query_handle_address(varnHandle h, char** name, char** address) VARN_NOEXCEPT;
VARN_EXPORT int varn_chan_type(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_get_chan_mode(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_is_child_of_daemon(void) VARN_NOEXCEPT;
/* The parent's name and id (-quon_parentname, -quon_parentid), each cut to
   fit a buffer of VARN_PARENT_INFO_SIZE bytes. */
#define VARN_PARENT_INFO_SIZE 256
VARN_EXPORT int varn_get_parent_info(char* name, char* id) VARN_NOEXCEPT;
VARN_EXPORT int varn_if_asciionly(void) VARN_NOEXCEPT;
VARN_EXPORT int varnP_find_file_entry(void) VARN_NOEXCEPT;

/* ---- Errors ------------------------------------------------------------ */

VARN_EXPORT int varn_get_error_no(void) VARN_NOEXCEPT;
/* Text of error n; numbers outside 0..75 give "Unknown error.". */
VARN_EXPORT const char* varn_get_error_message(int n) VARN_NOEXCEPT;

/* ---- Initialisation and shutdown --------------------------------------- */

VARN_EXPORT int varn_init(int* argc, char** argv, varnHandle* parent) VARN_NOEXCEPT;
VARN_EXPORT int varn_deinit(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_init_varn_line(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_no_memory_msg(size_t reserve, size_t request, char** message) VARN_NOEXCEPT;
VARN_EXPORT int varn_chdir(const char* directory) VARN_NOEXCEPT;

/* ---- Utilities --------------------------------------------------------- */

VARN_EXPORT int varn_util_int_to_category(int code, char* word) VARN_NOEXCEPT;
VARN_EXPORT int varn_util_category_to_int(const char* word, int* code) VARN_NOEXCEPT;
VARN_EXPORT int varn_util_status_string_to_code(const char* word, int* code) VARN_NOEXCEPT;
VARN_EXPORT void varn_util_compress_args(char** argv, int index, int* argc,
                                         int count) VARN_NOEXCEPT;
VARN_EXPORT int varn_util_strcpy(char** field, const char* text) VARN_NOEXCEPT;
VARN_EXPORT size_t varn_util_strlen(const char* text) VARN_NOEXCEPT;
VARN_EXPORT int varn_util_sleep(int seconds, int milliseconds) VARN_NOEXCEPT;
VARN_EXPORT void varn_util_hold_sigusr1(int how) VARN_NOEXCEPT;
VARN_EXPORT void varn_util_release_sigusr1(int how) VARN_NOEXCEPT;
VARN_EXPORT void varn_util_sigaction(int signal_number) VARN_NOEXCEPT;

/* ---- Packet output and DATA batching ----------------------------------- */

VARN_EXPORT int varn_send_init(void) VARN_NOEXCEPT;
/* Builds and writes one packet; length 0 means payload is NUL-terminated text. */
VARN_EXPORT int varn_send_packet(const char* destination, const char* source, int category,
                                 const void* payload, size_t length) VARN_NOEXCEPT;
/* The same, composed in a buffer of the call's own (answers built while parsing). */
VARN_EXPORT int varn_send_packet_signal(const char* destination, const char* source, int category,
                                        const void* payload, size_t length) VARN_NOEXCEPT;
VARN_EXPORT int varnP_write_packet(char* buffer, size_t size) VARN_NOEXCEPT;
VARN_EXPORT int write_file_win(int handle, const void* buffer, size_t count,
                               size_t* written) VARN_NOEXCEPT;
VARN_EXPORT int varn_WriteFile(int handle, const void* buffer, size_t count, size_t* written,
                               void* overlapped) VARN_NOEXCEPT;
VARN_EXPORT long varn_send(int socket, const void* buffer, size_t count, int flags) VARN_NOEXCEPT;
VARN_EXPORT int varnP_data_batch_add(const char* destination, const void* payload,
                                     size_t length) VARN_NOEXCEPT;
VARN_EXPORT int varnP_data_batch_flush(void) VARN_NOEXCEPT;
VARN_EXPORT int varnP_data_batch_open(const char* destination) VARN_NOEXCEPT;
VARN_EXPORT int varnP_data_batch_reset(void) VARN_NOEXCEPT;

/* ---- Input thread ------------------------------------------------------ */

VARN_EXPORT int startQuoninThread2(void) VARN_NOEXCEPT;
VARN_EXPORT int varnP_start_error_thread(void) VARN_NOEXCEPT;
/* Takes the next whole packet body (blocking); the caller frees *body with free(). */
VARN_EXPORT int varnP_take_packet(char** body, size_t* length, int wait) VARN_NOEXCEPT;
VARN_EXPORT int varnP_has_messages_waiting(void) VARN_NOEXCEPT;
/* Reads and handles one incoming message on the application's thread. */
VARN_EXPORT int varn_process_one_message(void) VARN_NOEXCEPT;
VARN_EXPORT int read_file_win(int handle, void* buffer, size_t count, size_t* read) VARN_NOEXCEPT;
VARN_EXPORT int varn_ReadFile(int handle, void* buffer, size_t count, size_t* read,
                              void* overlapped) VARN_NOEXCEPT;
VARN_EXPORT long varn_recv(int socket, void* buffer, size_t count, int flags) VARN_NOEXCEPT;
VARN_EXPORT int varn_post_quonin_msg(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_remove_quonin_msg(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_queueMsgCount(int delta) VARN_NOEXCEPT;

/* ---- Message queue and the out-of-band lane ---------------------------- */

VARN_EXPORT int varn_queue_init(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_deinit(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_put_msg(const char* source, const char* destination, const char* payload,
                                   int category, size_t length) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_get_msg(char** source, char** destination, char** payload, int* category,
                                   size_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_get_outband_msg(char** source, char** destination, char** payload,
                                           int* category, size_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_has_msg(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_flush_queue(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_outband_on(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_set_outband(varnHandle h, const int* categories) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_reset_outband(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_is_outband_chan(const char* source, int category) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_get_outband(int* channel, int** categories) VARN_NOEXCEPT;
/* Category codes follow set, ending with 0. */
VARN_EXPORT int varn_queue_set_waitcat(int** set, ...) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_free_waitcat(int** set) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_is_signal_msg(const char* source, int category, const char* payload,
                                         size_t length) VARN_NOEXCEPT;
VARN_EXPORT int varn_queue_get_signal_msg(char** source, char** destination, char** payload,
                                          int* category, size_t* length) VARN_NOEXCEPT;

/* ---- Packet input and parsing ------------------------------------------ */

VARN_EXPORT int varn_recv_init(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_recv_read_and_parse_message(int wait) VARN_NOEXCEPT;
/* Splits a packet body in place (NULs after the three tokens). */
VARN_EXPORT int varn_recv_parse_message(char* body, size_t length, char** destination,
                                        char** source, int* category, char** payload,
                                        size_t* payload_length) VARN_NOEXCEPT;
VARN_EXPORT int varn_parse_message(const char* source, const char* destination, const char* payload,
                                   int category, size_t length) VARN_NOEXCEPT;
VARN_EXPORT int varn_recv_find_entry_exact(const char* address, int exact) VARN_NOEXCEPT;
VARN_EXPORT int varn_receive_read_data(varnHandle h, int* category, char* buffer, int64_t size,
                                       size_t* length, int lane) VARN_NOEXCEPT;
VARN_EXPORT int varn_recv_read_data(varnHandle h, int* category, char* buffer, int64_t size,
                                    size_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_recv_read_data_from_VarnInStreamData(varnHandle h, int* category, char* buffer,
                                                          size_t* length) VARN_NOEXCEPT;
VARN_EXPORT void varn_recv_intr_signal_handler(void) VARN_NOEXCEPT;

/* ---- Protocol ---------------------------------------------------------- */

VARN_EXPORT int varn_send_send_msg(varnHandle h, int category, const char* payload,
                                   size_t length) VARN_NOEXCEPT;
VARN_EXPORT int varnP_send_framed(varnHandle h, int category, const char* payload,
                                  size_t length) VARN_NOEXCEPT;

/* ---- Messaging --------------------------------------------------------- */

VARN_EXPORT int varn_send_msg(varnHandle h, int category, const char* data,
                              int64_t length) VARN_NOEXCEPT;
VARN_EXPORT int varn_set_status(uint32_t status, const char* text) VARN_NOEXCEPT;
VARN_EXPORT int varn_set_callback(VarnCallback callback) VARN_NOEXCEPT;
VARN_EXPORT void varnP_set_callback(VarnCallback callback) VARN_NOEXCEPT;
VARN_EXPORT void varnP_call_callback(varnHandle h) VARN_NOEXCEPT;

/* Sends KILL to h and waits for its exit notice; the row is free afterwards.
   A process that receives KILL runs its callback (on the library's input
   thread, with the application's thread held), sends its exit notice to the
   hub and exits with status 0 through exit(): exit handlers run and stdio
   streams are flushed. An exit handler that has not finished after 2 s
   (one that needs a lock the held thread owns) is abandoned and the
   process ends at once. */
VARN_EXPORT int varn_kill(varnHandle h) VARN_NOEXCEPT;
VARN_EXPORT int varn_send_quon_cmd(const char* command) VARN_NOEXCEPT;
VARN_EXPORT int varn_set_chan_mode(int mode) VARN_NOEXCEPT;
VARN_EXPORT int varn_send_status_to_daemon(int status) VARN_NOEXCEPT;
VARN_EXPORT int varn_send_trace_msg(const char* text) VARN_NOEXCEPT;
VARN_EXPORT int varn_put_msg_in_queue(varnHandle h, int category, const char* data,
                                      int64_t length) VARN_NOEXCEPT;
/* The buffer must hold the longest message the peer may send plus one byte. */
VARN_EXPORT int varn_wait(varnHandle h, uint32_t* category, char* buffer, uint32_t* length,
                          uint32_t default_category, int force) VARN_NOEXCEPT;
VARN_EXPORT int varn_wait_for_any_from_handle(varnHandle h, uint32_t* category, char* buffer,
                                              uint32_t* length, uint32_t default_category,
                                              int force) VARN_NOEXCEPT;

/* ---- Waits with a deadline -------------------------------------------------
   Each waits at most timeout_ms (a negative one counts as 0) for what it expects from h and
   then tells why nothing came, in VarnErrorNo, with a text in `detail` (a
   buffer of VARN_STATUS_TEXT_SIZE bytes, or null):
     76 VARN_E_NO_ACK       the command was never acknowledged: the peer's
                            application did not take it (it is busy in its own
                            code, or never reads); detail: its status text, if
                            it answered a status query
     77 VARN_E_PEER_BUSY    the peer is busy; detail: its status text
     78 VARN_E_PEER_IDLE    the peer is idle: nothing is on its way
     79 VARN_E_PEER_SILENT  the peer did not answer a status query either
                            (stopped, or hung with its input unread)
     80 VARN_E_PEER_EXITED  the peer exited; detail: its exit text
     43 VARN_E_DAEMON_GONE  the hub is gone
   At the deadline the peer is asked for its status; that answer is awaited
   for at most min(timeout_ms, 500) ms more (and at least 50 ms), so a call
   returns within timeout_ms plus that bound. The message taken is copied
   into buffer (capacity bytes, cut to fit and always NUL-terminated);
   *length is its full length. Messages of h that the call does not expect
   stay queued for the calls that do. In debug mode (no hub) these behave as
   varn_wait does there, without a deadline. */
#define VARN_CATEGORY_BIT(category) ((uint64_t)1 << (category))
/* Waits for a message of one of `categories` (VARN_CATEGORY_BIT of each;
   0: DONE or ERROR). Returns 1 with it, or 0. */
VARN_EXPORT int varn_wait_deadline(varnHandle h, uint64_t categories, int timeout_ms,
                                   uint32_t* category, char* buffer, uint32_t capacity,
                                   uint32_t* length, char* detail) VARN_NOEXCEPT;
/* Sends CMD with `command` and waits for its ACK and then its DONE or ERROR,
   all within timeout_ms. A NAK fails at once as varn_send_msg's does. */
VARN_EXPORT int varn_call_deadline(varnHandle h, const char* command, int timeout_ms,
                                   uint32_t* category, char* buffer, uint32_t capacity,
                                   uint32_t* length, char* detail) VARN_NOEXCEPT;
/* Cancels h's outstanding command: sends INTR with `text` (may be null) and
   waits, within timeout_ms, for the one DONE or ERROR that ends the command.
   An answer that was already queued is that one. The command's ACK, when a
   call gave up before it came, is taken on the way; its NAK ends the
   command and is returned. */
VARN_EXPORT int varn_cancel(varnHandle h, const char* text, int timeout_ms, uint32_t* category,
                            char* buffer, uint32_t capacity, uint32_t* length,
                            char* detail) VARN_NOEXCEPT;
VARN_EXPORT int varn_recv_msg_len_new(varnHandle h, uint32_t* category, char* buffer,
                                      uint64_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_recv_msg_len(varnHandle h, uint32_t* category, char* buffer,
                                  uint32_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_recv_msg(varnHandle h, uint32_t* category, char* buffer) VARN_NOEXCEPT;
/* Next piece of h's DATA stream: category DATA with the record, or END with
   the END text followed by two NULs. capacity < 0 means no limit. */
VARN_EXPORT int varn_recv_data(varnHandle h, uint32_t* category, char* buffer, int64_t capacity,
                               uint32_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_truly_recv_data(varnHandle h, uint32_t* category, char* buffer,
                                     int64_t capacity, uint32_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_read_data(varnHandle h, uint32_t* category, char* buffer,
                               uint32_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_set_immediate_intr_kill_mode(varnHandle h, uint32_t flag) VARN_NOEXCEPT;
VARN_EXPORT void KOnvtMainLoop(void) VARN_NOEXCEPT;
VARN_EXPORT void KOMainLoop(void) VARN_NOEXCEPT;
VARN_EXPORT int KOnvtAccept(void) VARN_NOEXCEPT;
/* The line calls work on a remote stream (the FILE* carries its number) when
   the process is connected by a socket and local is 0, else on the local
   stream. A line is cut at its first line feed, carriage return or Ctrl-Z;
   a line that starts with Ctrl-Z is the end of the input (0, now and at the
   next calls, until the stream is repositioned or closed through the
   wrappers below). varn_readline's buffer holds 1025 bytes: a longer line
   comes back in pieces of 1024 characters. */
VARN_EXPORT int varn_readline(FILE* stream, char* buffer, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_readlineP(FILE* stream, char** line, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_writeline(FILE* stream, uint32_t newline, const char* text,
                               int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_start_time(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_elapsed_time(uint32_t* seconds, uint32_t* microseconds) VARN_NOEXCEPT;
VARN_EXPORT int varn_total_time(uint32_t* seconds, uint32_t* microseconds) VARN_NOEXCEPT;
VARN_EXPORT int varn_sleep(int seconds, int milliseconds) VARN_NOEXCEPT;

/* ---- Process invocation ------------------------------------------------ */

/* error_text receives the hub's refusal, cut to 5800 bytes. */
VARN_EXPORT int varn_invoke(varnHandle* h, const char* name, const char* host, const char* args,
                            uint32_t keep, char* error_text, const char* workdir) VARN_NOEXCEPT;
VARN_EXPORT int varn_invoke_ex(varnHandle* h, const char* name, const char* host, const char* args,
                               uint32_t keep, char* error_text, const char* workdir) VARN_NOEXCEPT;
VARN_EXPORT int varn_invoke_nonvelor_program(varnHandle* h, const char* name, const char* host,
                                             const char* args, uint32_t keep, char* error_text,
                                             uint32_t kind, const char* workdir) VARN_NOEXCEPT;
VARN_EXPORT int varn_wait_until_invoked(varnHandle h, char* error_text) VARN_NOEXCEPT;
VARN_EXPORT int varnP_invoke_entry(varnHandle h, const char* name, const char* host,
                                   const char* args, uint32_t keep, uint32_t non_velor,
                                   char* error_text, uint32_t kind,
                                   const char* workdir) VARN_NOEXCEPT;
VARN_EXPORT int varnP_invoke_entry_ex(varnHandle h, const char* name, const char* host,
                                      const char* args, uint32_t keep, uint32_t non_velor,
                                      char* error_text, uint32_t kind,
                                      const char* workdir) VARN_NOEXCEPT;
VARN_EXPORT int varnP_reinvoke_process(varnHandle h) VARN_NOEXCEPT;
VARN_EXPORT int varn_send_serial_protocol_setup_after_reinvoke(varnHandle h) VARN_NOEXCEPT;
VARN_EXPORT int varnP_enable_server_protocal(const char* name, const char* address) VARN_NOEXCEPT;
VARN_EXPORT int varnP_disable_server_protocal(const char* name) VARN_NOEXCEPT;
VARN_EXPORT int varnP_notify(const char* text) VARN_NOEXCEPT;
VARN_EXPORT int varnP_disconnect_process(varnHandle h) VARN_NOEXCEPT;

/* ---- Connections and queries ------------------------------------------- */

VARN_EXPORT int varn_connect_process(varnHandle* h, const char* name, const char* address,
                                     const char* where) VARN_NOEXCEPT;
VARN_EXPORT int varn_connect_server(varnHandle* h, varnHandle owner,
                                    const char* server) VARN_NOEXCEPT;
VARN_EXPORT int varnP_is_connected(const char* name, const char* address) VARN_NOEXCEPT;
/* *list points into library memory, valid until the next request to Quon. */
VARN_EXPORT int varn_query_pg_process(char** list) VARN_NOEXCEPT;
VARN_EXPORT int varn_prep_query_result(char* list, char** cursor) VARN_NOEXCEPT;
/* Each word of a record is cut to fit a buffer of VARN_QUERY_WORD_SIZE
   bytes. */
#define VARN_QUERY_WORD_SIZE 512
VARN_EXPORT int varn_get_query_result(char** cursor, char* name, char* address, char* third,
                                      int* number) VARN_NOEXCEPT;
VARN_EXPORT int varn_query_server_address(const char* server, char** address) VARN_NOEXCEPT;
VARN_EXPORT int varn_query_status(varnHandle h, uint32_t* status, char* text) VARN_NOEXCEPT;
VARN_EXPORT int varn_query_own_address(char* buffer) VARN_NOEXCEPT;

/* ---- Debug mode -------------------------------------------------------- */

VARN_EXPORT int varn_debug_true(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_debug_get_message_str(char** line, size_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_debug_parse_message(char* line, char** destination, char** source,
                                         int* category, char** payload) VARN_NOEXCEPT;
VARN_EXPORT int varn_debug_save_data(varnHandle h, const char* destination, const char* source,
                                     int category, const char* payload, uint32_t recv_stream,
                                     uint32_t send_stream) VARN_NOEXCEPT;
VARN_EXPORT int varn_debug_read_data(varnHandle h, int* category, char* buffer, int64_t capacity,
                                     size_t* length) VARN_NOEXCEPT;
VARN_EXPORT int varn_debug_send_message(varnHandle h, int category, const char* payload,
                                        uint32_t send_stream) VARN_NOEXCEPT;
VARN_EXPORT int varn_debug_invoke_entry(varnHandle h, const char* program, const char* host,
                                        const char* args, uint32_t keep,
                                        const char* prefix) VARN_NOEXCEPT;
VARN_EXPORT int varn_debug_query_status(varnHandle h, uint32_t* status, char* text) VARN_NOEXCEPT;

/* ---- Remote file requests -------------------------------------------- */

/* File operations the hub carries out beside itself for this process, one
   request and one answer each. A remote file handle is a row 0..29 of the
   remote file table. Modes: 1 READ, 2 WRITE, 3 APPEND; types: 1 TEXT,
   2 BINARY. Errors 44 to 57 and 71 to 74 (see varn_codes.h). */
VARN_EXPORT int varn_quon_fopen(int* handle, const char* name, int mode, int type) VARN_NOEXCEPT;
VARN_EXPORT int varn_quon_fclose(int handle) VARN_NOEXCEPT;
/* Items read (at most 30208 bytes a call); 0 on failure, 57 at the end. */
VARN_EXPORT uint64_t varn_quon_fread(void* buffer, uint64_t size, uint64_t count,
                                     int handle) VARN_NOEXCEPT;
/* Items written, split into packets of at most 30208 bytes; after a refused
   packet the bytes accepted before it. */
VARN_EXPORT uint64_t varn_quon_fwrite(const void* buffer, uint64_t size, uint64_t count,
                                      int handle) VARN_NOEXCEPT;
VARN_EXPORT int varn_quon_frewind(int handle) VARN_NOEXCEPT;
VARN_EXPORT int varn_quon_funlink(const char* path) VARN_NOEXCEPT;
/* *kind: 1 a directory, 2 a regular file, 0 anything else. */
VARN_EXPORT int varn_quon_fstat(const char* path, int* kind) VARN_NOEXCEPT;
VARN_EXPORT int varn_quon_feof(int handle) VARN_NOEXCEPT;
/* 0 on success (like fseek), 1 on failure. */
VARN_EXPORT int varn_quon_fseek(int handle, int offset, int whence,
                                int64_t* position) VARN_NOEXCEPT;
VARN_EXPORT int64_t varn_quon_ftell(int handle) VARN_NOEXCEPT;

/* ---- Remote file streams and file wrappers ---------------------------- */

/* Remote streams, numbered 1 to 30, buffered over the requests above. Open
   codes: mode 1 read, 0 write, 3 append; text 1 text, 0 binary. */
VARN_EXPORT int varn_fileR_fopen(uint64_t* stream, const char* name, uint32_t mode,
                                 uint32_t text) VARN_NOEXCEPT;
VARN_EXPORT int varn_fileR_fclose(uint32_t stream) VARN_NOEXCEPT;
VARN_EXPORT uint64_t varn_fileR_fread(uint32_t stream, uint64_t size, uint64_t count,
                                      void* buffer) VARN_NOEXCEPT;
VARN_EXPORT uint64_t varn_fileR_fwrite(uint32_t stream, uint64_t size, uint64_t count,
                                       const void* buffer) VARN_NOEXCEPT;
VARN_EXPORT int varn_fileR_fseek(uint32_t stream, int64_t offset, uint32_t whence) VARN_NOEXCEPT;
VARN_EXPORT int64_t varn_fileR_ftell(uint32_t stream) VARN_NOEXCEPT;
VARN_EXPORT int varn_fileR_feof(uint32_t stream) VARN_NOEXCEPT;
VARN_EXPORT int varn_fileR_rewind(uint32_t stream) VARN_NOEXCEPT;
/* line: at least 1025 bytes; a longer line comes back in pieces. */
VARN_EXPORT int varn_fileR_readline(uint32_t stream, char* line) VARN_NOEXCEPT;
/* The line is in the library's line buffer (see varn_readlineP). */
VARN_EXPORT int varn_fileR_readlineP(uint32_t stream) VARN_NOEXCEPT;
VARN_EXPORT int varn_fileR_writeline(uint32_t stream, uint32_t newline,
                                     const char* text) VARN_NOEXCEPT;
/* One conversion ("d", "e", "f", "le", "lf", "s" or "c") into *destination;
   1 or -1. */
VARN_EXPORT int varn_fileR_fscanf(uint64_t stream, int local, const char* conversion,
                                  void** destination) VARN_NOEXCEPT;
VARN_EXPORT int varn_fileR_stat(const char* path, int* kind) VARN_NOEXCEPT;
VARN_EXPORT int varn_fileR_unlink(const char* path) VARN_NOEXCEPT;
VARN_EXPORT int varn_fileR_find_remote_file_entry_by_fp(uint32_t stream, int* index) VARN_NOEXCEPT;

/* stdio-like wrappers: a remote stream (the FILE* carries its number) when
   the process is connected by a socket and local is 0, else a local file. */
VARN_EXPORT int varn_fopen(FILE** stream, const char* name, int mode, int text,
                           int local) VARN_NOEXCEPT;
VARN_EXPORT FILE* varn_file_fopen(const char* name, const char* mode, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_fclose(FILE* stream, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_file_fclose(FILE* stream, int local) VARN_NOEXCEPT;
VARN_EXPORT uint64_t varn_fread(FILE* stream, uint64_t size, uint64_t count, void* buffer,
                                int local) VARN_NOEXCEPT;
VARN_EXPORT uint64_t varn_fwrite(FILE* stream, uint64_t size, uint64_t count, const void* buffer,
                                 int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_fseek(FILE* stream, int32_t offset, int whence, int local) VARN_NOEXCEPT;
VARN_EXPORT int64_t varn_ftell(FILE* stream, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_feof(FILE* stream, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_rewind(FILE* stream, int local) VARN_NOEXCEPT;
VARN_EXPORT char* varn_fgets(FILE* stream, char* buffer, uint32_t n, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_fputs(FILE* stream, const char* text, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_fprintf(FILE* stream, int local, const char* format, ...) VARN_NOEXCEPT;
VARN_EXPORT int varn_fscanf(FILE* stream, int local, const char* format, ...) VARN_NOEXCEPT;
/* *kind: 1 a directory, 2 a regular file, 0 anything else. */
VARN_EXPORT int varn_stat(const char* path, uint32_t* kind, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_unlink(const char* path, int local) VARN_NOEXCEPT;
VARN_EXPORT int varn_file_unlink(const char* path, int local) VARN_NOEXCEPT;

/* ---- Status session client -------------------------------------------- */

/* The status server ("dravosess") shows display lines in windows grouped by
   session. Kinds of display lines: */
#define VARN_STATUS_WARNING 0
#define VARN_STATUS_PROGRESS 1
#define VARN_STATUS_INFO 2

/* Asks the status server (found among the known processes or started
   first) for a new session: its number, or 0 on failure. */
VARN_EXPORT int varn_status_open_session(void) VARN_NOEXCEPT;
/* Sends a display line of one kind to a session, finding or starting the
   status server first; null texts are sent as empty texts, and a line that
   would exceed 5807 bytes is cut there. When the status server can be
   neither found nor started, text1 is written to the error stream instead.
   1 when the line was sent. */
VARN_EXPORT int varn_status_display_de(uint32_t session, uint32_t kind, const char* text1,
                                       const char* text2, const char* text3) VARN_NOEXCEPT;
/* Asks the status server to show a session. Like varn_status_map_to_front
   it does not look for the server: before the server is known it fails
   with 31. */
VARN_EXPORT int varn_status_show_session(uint32_t session) VARN_NOEXCEPT;
/* The status server's handle, finding or starting the server first; -1
   when that fails. */
VARN_EXPORT int varn_status_get_varnhandle(void) VARN_NOEXCEPT;

/* ---- Help server client ----------------------------------------------- */

/* The help server ("dravohelp") drives the help viewer. Its handle, -1
   while none is known, and the help error number, an index of the table of
   varn_help_get_error_message (16, "No error", at first). */
VARN_EXPORT extern int KohelpMessageHandle;
VARN_EXPORT extern int VarnHelpErrorNo;

/* The message buffer of varn_help_open and varn_help_manual must hold this
   many bytes; a longer text is cut. */
#define VARN_HELP_MESSAGE_SIZE 256

/* Wakes the help server (sends it "Invoke"), starting it when none runs or
   the one known reports itself dead. 1 when it was sent. */
VARN_EXPORT int varn_help_invoke(void) VARN_NOEXCEPT;
/* Ends the help server; 1 when it was ended or none was known. */
VARN_EXPORT int varn_help_kill(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_help_get_handle(void) VARN_NOEXCEPT;
/* Asks the help server for its title; the answer comes as a DONE. 1 when
   the request was sent. */
VARN_EXPORT int varn_help_get_version(void) VARN_NOEXCEPT;
/* Asks the help viewer to show a topic of a book (of any book when book is
   null or empty) and reads the answer. *busy is 1 when the viewer could not
   take the request at once; message receives the reason or the server's
   answer ("" when the topic is shown). 1 when the request was taken. */
VARN_EXPORT int varn_help_open(const char* topic, const char* book, int* busy,
                               char* message) VARN_NOEXCEPT;
/* varn_help_open of the book "Manuals". */
VARN_EXPORT int varn_help_manual(const char* topic, int* busy, char* message) VARN_NOEXCEPT;
/* Asks the help viewer to show a web address; 1 when sent. */
VARN_EXPORT int varn_help_open_url(const char* address) VARN_NOEXCEPT;
/* Asks the help viewer to show the web page of an error text; 1 when sent. */
VARN_EXPORT int varn_help_weblinked_error(const char* text) VARN_NOEXCEPT;
/* The message of VarnHelpErrorNo; null for a number outside 0..16. */
VARN_EXPORT const char* varn_help_get_error_message(void) VARN_NOEXCEPT;
/* The arguments formatted (at most 511 bytes) in a new heap text, which the
   caller frees with free(); null when memory is short. */
VARN_EXPORT char* varn_help_get_error_solved_message(const char* format, ...) VARN_NOEXCEPT;

/* ---- Tool launchers ---------------------------------------------------- */

/* Each returns the handle of the one running instance of a tool program
   that this process shares among its users, starting one only when none is
   usable; -1 when it cannot be started (VarnErrorNo says why). */

/* The dataset server ("dravodss"), or the display server when it serves
   datasets (varn_dataset_is_merged). */
VARN_EXPORT int varn_dataset_invoke(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_dataset_invoke_with_args(const char* args) VARN_NOEXCEPT;
/* 1 when the display server serves datasets, 0 when the dataset server
   does: the setting USE_DATASET_SERVER of the settings "dravo", read once. */
VARN_EXPORT int varn_dataset_is_merged(void) VARN_NOEXCEPT;
/* The display server ("dravodds"); a running one started by another call
   of this process is taken over. */
VARN_EXPORT int varn_dds_invoke(void) VARN_NOEXCEPT;
VARN_EXPORT int varn_dds_invoke_with_args(const char* args) VARN_NOEXCEPT;
/* The data-flow tool ("velordftool"). */
VARN_EXPORT int varn_dftool_invoke(void) VARN_NOEXCEPT;
/* The instrument server ("dravoinstrio"). */
VARN_EXPORT int varn_instrument_invoke(void) VARN_NOEXCEPT;

/* ---- Script bindings: servers for Mirl scripts ------------------------ */

/* Scripts of the environment's extension language, Mirl, and the host's
   code work with servers: records of the program to run, how to start it,
   where to reach it, whether a command to it is out, and a stack of
   message handlers. A server is known by its index in the server table;
   index 0 is the parent process. Failures that a script should see are
   raised as Mirl errors of domain "MIRL", codes 350 to 359. All of these
   run on the application's thread. */

struct MIRLValue; /* a value of the Mirl runtime */

/* Message kinds that handlers receive. */
#define MIRLQUON_COMMAND 0
#define MIRLQUON_DATA 1
#define MIRLQUON_DATA_BEGIN 2
#define MIRLQUON_DATA_CONTINUE 3
#define MIRLQUON_DATA_END 4
#define MIRLQUON_DONE 5
#define MIRLQUON_ERROR 6
#define MIRLQUON_DEATH 7

/* A handler: (its data, server index, message kind, payload valid during
   the call). */
typedef void (*AquonHandlerFn)(void* data, int server, int kind, const char* payload);

/* Sets up the library (varn_init), the message callback, the Mirl function
   vocabulary, slot 0 and the start polls (a poll every poll_interval
   seconds, for up to timeout seconds; 0 keeps 1 s and 300 polls), and
   starts the help server. 1 on success; 1 at once when already done. */
VARN_EXPORT int aquon_initialize(int poll_interval, int timeout, int* argc,
                                 char** argv) VARN_NOEXCEPT;
/* The same for a process whose library was set up by other code: no
   varn_init, no callback, no help server. */
VARN_EXPORT int aquon_coexist_initialize(int poll_interval, int timeout, int parent) VARN_NOEXCEPT;
VARN_EXPORT void aquon_init_servers(int poll_interval, int timeout, int parent) VARN_NOEXCEPT;
/* varn_init and the Mirl constants of the message kinds. */
VARN_EXPORT int mirlquon_init(int* argc, char** argv, varnHandle* parent) VARN_NOEXCEPT;
VARN_EXPORT int mirlquon_init_vocab(void) VARN_NOEXCEPT;

/* The server table. */
VARN_EXPORT int aquon_allocate_server(const char* name, const char* id, const char* host_variable,
                                      const char* arguments, const char* argument_function,
                                      int via_server, int non_velor, int keep_entry) VARN_NOEXCEPT;
VARN_EXPORT int aquon_find_server(const char* name, int via_server) VARN_NOEXCEPT;
VARN_EXPORT int aquon_decode_server(int type, struct MIRLValue* value) VARN_NOEXCEPT;
/* Field 0 name, 1 id, 2 host variable, 3 arguments, 7 argument function
   (texts); 4 handle, 5 via server, 6 non-Velor, 8 keep entry (ints). The
   pointer lasts until the table grows or the field is written. */
VARN_EXPORT void* aquon_get_server(int index, int field) VARN_NOEXCEPT;
VARN_EXPORT int aquon_register_server(const char* name, const char* id, int handle) VARN_NOEXCEPT;
VARN_EXPORT int aquon_clear_server(int index) VARN_NOEXCEPT;
VARN_EXPORT void aquon_delete_server(int index, int kill) VARN_NOEXCEPT;
VARN_EXPORT int aquon_kill_server(int index) VARN_NOEXCEPT;
VARN_EXPORT void aquon_shutdown_servers(void) VARN_NOEXCEPT;
VARN_EXPORT void aquon_reset_servers(void) VARN_NOEXCEPT;
VARN_EXPORT int aquon_set_server_parms(int index, const char* arguments) VARN_NOEXCEPT;
VARN_EXPORT int aquon_set_default_server(int index) VARN_NOEXCEPT;
/* Raises the library's last error as the script error 352. */
VARN_EXPORT int aquon_set_varn_error(void) VARN_NOEXCEPT;

/* Starting and connecting. */
VARN_EXPORT int aquon_start_server(int index, int nonvelor_kind,
                                   const char* directory) VARN_NOEXCEPT;
VARN_EXPORT int aquon_server_running(int index, const char* directory) VARN_NOEXCEPT;
VARN_EXPORT const char* aquon_query_server_address(int index) VARN_NOEXCEPT;
VARN_EXPORT int aquon_connect_server(const char* address) VARN_NOEXCEPT;
VARN_EXPORT int aquon_server_connect_process(int index) VARN_NOEXCEPT;
/* handles must have room for as many handles as the process entry table
   has rows. */
VARN_EXPORT int aquon_query_all_server_handles(int* handles, int* count) VARN_NOEXCEPT;

/* Messages to servers. */
VARN_EXPORT int aquon_command_server(const char* command, int index,
                                     const char* directory) VARN_NOEXCEPT;
VARN_EXPORT int aquon_data_server(const char* text, int index, const char* directory) VARN_NOEXCEPT;
VARN_EXPORT int aquon_error_server(const char* text, int index,
                                   const char* directory) VARN_NOEXCEPT;
VARN_EXPORT int aquon_start_data_block_server(const char* title, int index,
                                              const char* directory) VARN_NOEXCEPT;
VARN_EXPORT int aquon_cont_data_block_server(const char* text) VARN_NOEXCEPT;
VARN_EXPORT int aquon_end_data_block_server(const char* text) VARN_NOEXCEPT;
VARN_EXPORT int aquon_interrupt_server(int index) VARN_NOEXCEPT;
VARN_EXPORT int aquon_set_data_done_args(int index, const char* text) VARN_NOEXCEPT;

/* Handlers and messages from servers. */
VARN_EXPORT int aquon_push_handler(int index, AquonHandlerFn function, void* data) VARN_NOEXCEPT;
VARN_EXPORT int aquon_pop_handler(int index, void** data) VARN_NOEXCEPT;
VARN_EXPORT int aquon_handles_this_message(int handle) VARN_NOEXCEPT;
VARN_EXPORT int aquon_handle_message(int handle, int category, const char* payload) VARN_NOEXCEPT;
VARN_EXPORT int aquon_execute_message(int handle, int kind, const char* payload) VARN_NOEXCEPT;

/* Waits. A read asks for at most *length characters (and never gets more
   than 5799); its buffer holds *length + 1 bytes. The buffer of
   aquon_wait_for_done_msg holds 5800 bytes. */
VARN_EXPORT int aquon_read_server_wait(int index, char* buffer, int* length,
                                       int* kind) VARN_NOEXCEPT;
VARN_EXPORT int aquon_wait_for_done(int index) VARN_NOEXCEPT;
VARN_EXPORT int aquon_wait_for_done_msg(int index, char* buffer) VARN_NOEXCEPT;
VARN_EXPORT int aquon_set_command_wait(int flag) VARN_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
/* The two calls exported with C++ linkage. */
/* Brings the status window to the front (on non-zero) or lets it stay where
   it is (0); see varn_status_show_session. */
VARN_EXPORT int varn_status_map_to_front(int on) VARN_NOEXCEPT;
/* Interrupts a server started here (text may be null). */
VARN_EXPORT int aquon_interrupt_server_msg(int index, const char* text) VARN_NOEXCEPT;
#endif

#endif /* VARN_H_ */
