/* Codes that the library, its users and the hub share: message categories
 * with their words, process status codes, and error numbers with their
 * messages. Each list is written once, here; the enums, the word table and
 * the message table are all generated from it.
 */
#ifndef VARN_CODES_H_
#define VARN_CODES_H_

/* ---- Message categories ----------------------------------------------- */

/* Every category: its code, its constant (VARN_ and the name) and the word
   that stands for it in a packet. Codes 51 to 53 exist only inside a
   process (queued messages already acknowledged). */
#define VARN_CATEGORY_LIST(X)           \
  X(0, NONE, "NONE")                    \
  X(1, STATUS_Q, "STATUS?")             \
  X(2, STATUS, "STATUS")                \
  X(3, KILL, "KILL")                    \
  X(4, ACCEPT, "ACCEPT")                \
  X(5, REJECT, "REJECT")                \
  X(6, INTR, "INTR")                    \
  X(7, CMD, "CMD")                      \
  X(8, DONE, "DONE")                    \
  X(9, BEGIN, "BEGIN")                  \
  X(10, END, "END")                     \
  X(11, DATA, "DATA")                   \
  X(12, ERROR, "ERROR")                 \
  X(13, SRVR_ERR, "SRVR_ERR")           \
  X(14, ACK, "ACK")                     \
  X(15, INVOKE, "INVOKE")               \
  X(16, INVOKER, "INVOKER")             \
  X(17, INVOKERE, "INVOKERE")           \
  X(18, INVOKERN, "INVOKERN")           \
  X(19, NAK, "NAK")                     \
  X(20, QUERY_Q, "QUERY?")              \
  X(21, QUERY, "QUERY")                 \
  X(22, ENABLE, "ENABLE")               \
  X(23, DISABLE, "DISABLE")             \
  X(24, NOTIFY, "NOTIFY")               \
  X(25, ASYNC_ENABLE, "ASYNC_ENABLE")   \
  X(26, ASYNC_DISABLE, "ASYNC_DISABLE") \
  X(27, PING, "PING")                   \
  X(28, STDERR, "STDERR")               \
  X(29, FACK, "FACK")                   \
  X(30, FNAK, "FNAK")                   \
  X(31, FOPEN, "FOPEN")                 \
  X(32, FCLOSE, "FCLOSE")               \
  X(33, FREAD, "FREAD")                 \
  X(34, FWRITE, "FWRITE")               \
  X(35, FREWIND, "FREWIND")             \
  X(36, FUNLINK, "FUNLINK")             \
  X(37, QUERYP_Q, "QUERYP?")            \
  X(38, QUERYP, "QUERYP")               \
  X(39, ATTACH, "ATTACH")               \
  X(40, DETACH, "DETACH")               \
  X(41, AACK, "AACK")                   \
  X(42, ANAK, "ANAK")                   \
  X(43, DACK_OBSOLETE, "DACK_OBSOLETE") \
  X(44, DNAK, "DNAK")                   \
  X(45, EACK, "EACK")                   \
  X(46, ENAK, "ENAK")                   \
  X(47, EDONE, "EDONE")                 \
  X(48, EERROR, "EERROR")               \
  X(49, BROADCAST, "BROADCAST")         \
  X(50, FSTAT, "FSTAT")                 \
  X(51, CMD_ACKSENT, "CMD_ACKSENT")     \
  X(52, BEGIN_ACKSENT, "BEGIN_ACKSENT") \
  X(53, END_ACKSENT, "END_ACKSENT")     \
  X(54, INVOKE_EX, "INVOKE_EX")         \
  X(55, FEOF, "FEOF")                   \
  X(56, FSEEK, "FSEEK")                 \
  X(57, FTELL, "FTELL")

#define VARN_CATEGORY_ENUM_(code, name, word) VARN_##name = code,
enum VarnCategory { VARN_CATEGORY_LIST(VARN_CATEGORY_ENUM_) VARN_CATEGORY_COUNT = 58 };
#undef VARN_CATEGORY_ENUM_

/* ---- Addresses ---------------------------------------------------------- */

/* The hub's own address, in both directions. A process's address is
   "pid@host". */
#define VARN_HUB_ADDRESS "quon"

/* ---- Process status (VarnStatus) -------------------------------------- */

#define VARN_STATUS_IDLE 0
#define VARN_STATUS_BUSY 1
#define VARN_STATUS_DEAD 2

/* ---- Error numbers ----------------------------------------------------- */

/* One list gives every error number, its constant and its message. */
#define VARN_ERROR_LIST(X)                                                             \
  X(0, NONE, "No error.")                                                              \
  X(1, TABLE_FULL, "VARN internal table is full.")                                     \
  X(2, READ_SIZE, "Failed reading size of incoming message packet.")                   \
  X(3, PARSE, "Failed parsing the incoming message.")                                  \
  X(4, CATEGORY, "Invalid message category.")                                          \
  X(5, READ_PACKET, "Failed reading the full message packet from QUON input.")         \
  X(6, ALREADY_INIT, "The VARN message library has already been initialized.")         \
  X(7, NOT_INIT, "The VARN message library has not been initialized yet.")             \
  X(8, BAD_STATUS, "Bad status code.")                                                 \
  X(9, HOSTNAME, "Failed to determine local hostname for the Velor daemon.")           \
  X(10, DAEMON, "Daemon error.")                                                       \
  X(11, INVOKE, "Failed to invoke the process.")                                       \
  X(12, KILL, "Unable to kill the process.")                                           \
  X(13, CLOSED, "The connection has been closed.")                                     \
  X(14, EXITING, "The process has been killed or is exiting.")                         \
  X(15, NO_INTR, "Nothing to interrupt.")                                              \
  X(16, DONE_NOT_IN_CMD, "Unable to send DONE, not in CMD loop.")                      \
  X(17, ERROR_NOT_IN_CMD, "Unable to send ERROR, not in CMD loop.")                    \
  X(18, END_NOT_IN_STREAM, "Unable to send END, not in DATA stream.")                  \
  X(19, SERVER_BUSY_CMD, "Server is busy, not ready for CMD.")                         \
  X(20, DATA_BEFORE_BEGIN, "Must send BEGIN before sending DATA.")                     \
  X(21, UNEXPECTED_NAK, "Not expecting NAK.")                                          \
  X(22, UNEXPECTED_ACK, "Not expecting ACK.")                                          \
  X(23, AFTER_BEGIN, "Must send DATA or END after BEGIN.")                             \
  X(24, SEND_UNKNOWN, "Can't send unrecognized category.")                             \
  X(25, PIPE_WRITE, "Write failure on pipe.")                                          \
  X(26, NOT_CHILD, "The process is not a direct child.")                               \
  X(27, SERVER_NOT_FOUND, "Specified server not found.")                               \
  X(28, RECV_QUERY, "Should not receive QUERY.")                                       \
  X(29, REINVOKE, "Failed to reinvoke the process.")                                   \
  X(30, RECV_STATUS, "Should not receive STATUS.")                                     \
  X(31, BAD_HANDLE, "Invalid message handle.")                                         \
  X(32, NO_SOURCE, "Unable to match source address of the incoming message.")          \
  X(33, CANNOT_SEND_DATA, "Unable to send data now.")                                  \
  X(34, TOO_LONG, "Message is too long.")                                              \
  X(35, MALLOC, "Malloc failed.")                                                      \
  X(36, END_NOT_APPLY, "END does not apply.")                                          \
  X(37, NOT_IN_STREAM, "Not in DATA stream.")                                          \
  X(38, WAIT_IN_STREAM, "Can't wait during data stream.")                              \
  X(39, NON_VELOR, "Non-Velor program.")                                               \
  X(40, DISABLED, "The process has been disabled.")                                    \
  X(41, STREAM_SOURCE, "Stream DATA source does not match BEGIN source.")              \
  X(42, RECEIVER_BUSY, "The receiving process is busy.")                               \
  X(43, DAEMON_GONE, "Daemon is either dead or has closed all it's sockets.")          \
  X(44, FOPEN, "Can't perform a remote fopen")                                         \
  X(45, FCLOSE, "Can't perform a remote fclose")                                       \
  X(46, FILE_TYPE, "Legal file types are TEXT and BINARY")                             \
  X(47, FILE_MODE, "Legal file modes are READ, WRITE and APPEND")                      \
  X(48, FILE_HANDLE, "Invalid remote file handle: may need to be opened first")        \
  X(49, NEGATIVE_SIZE, "Buffer size may not be negative ")                             \
  X(50, FILE_CONFLICT,                                                                 \
    "Conflicting file operations: reading from a file opened for write or vice versa") \
  X(51, FILE_OPEN, "Remote file is open")                                              \
  X(52, FILE_TABLE_FULL, "VARN internal remote file table is full.")                   \
  X(53, FREAD, "Can't perform a remote fread")                                         \
  X(54, FWRITE, "Can't perform a remote fwrite")                                       \
  X(55, FREWIND, "Can't perform a remote frewind")                                     \
  X(56, FUNLINK, "Can't perform a remote funlink")                                     \
  X(57, EOF, "End of file")                                                            \
  X(58, FILE_BUFFER, "Exceed remote file buffer size = 4096")                          \
  X(59, SOCKET_CREATE, "Unable to create a socket")                                    \
  X(60, WRONG_HOSTNAME, "Wrong hostname")                                              \
  X(61, SOCKET_CONNECT, "Failed to connect a socket")                                  \
  X(62, OBSOLETE_62, "Obsolete")                                                       \
  X(63, QUERY_REMOTE, "Cannot query remote processes")                                 \
  X(64, NOT_STANDALONE, "The process is not a standalone VARN process")                \
  X(65, STANDALONE, "The process is a standalone VARN process not attached to quon")   \
  X(66, ATTACH, "Failed to attach a process to a PG Quon")                             \
  X(67, DETACH, "Failed to detach a process from a PG Quon")                           \
  X(68, WINSOCK, "Failed to get the right version of winsock")                         \
  X(69, QUON_CMD, "Quon failed to executed the sent command")                          \
  X(70, OBSOLETE_70, "Obsolete")                                                       \
  X(71, FSTAT, "Can't perform a remote stat")                                          \
  X(72, FEOF, "Can't perform a remote feof")                                           \
  X(73, FSEEK, "Can't perform a remote fseek")                                         \
  X(74, FTELL, "Can't perform a remote ftell")                                         \
  X(75, NEW_HANDLE, "Unable to allocate a new varn handle")                            \
  X(76, NO_ACK, "Deadline passed: the command was never acknowledged.")                \
  X(77, PEER_BUSY, "Deadline passed: the peer is still busy.")                         \
  X(78, PEER_IDLE, "Deadline passed: the peer is idle and sent nothing.")              \
  X(79, PEER_SILENT, "Deadline passed: the peer does not answer.")                     \
  X(80, PEER_EXITED, "The peer exited before it answered.")

#define VARN_ERROR_ENUM_(n, name, text) VARN_E_##name = n,
enum VarnErrorNumber { VARN_ERROR_LIST(VARN_ERROR_ENUM_) VARN_ERROR_COUNT = 81 };
#undef VARN_ERROR_ENUM_

#endif /* VARN_CODES_H_ */
