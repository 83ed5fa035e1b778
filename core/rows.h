// The process entry table VarnMessage, one row per peer: allocation,
// lookups, and the protocol state of a row.
//
// Every change of a row's protocol state (its state, its stream states, the
// last message taken from the peer) goes through Row, so that the rules are
// written once: which buffer holds the text of the last message, what a
// reset clears, what a row that addresses a peer starts with. String fields
// and flags without protocol meaning (name, args, keep_entry, ...) are set
// on entry() directly, through varn_util_strcpy for strings.
#ifndef VARN_CORE_ROWS_H_
#define VARN_CORE_ROWS_H_

#include <cstddef>
#include <cstdint>

#include "core/library_lock.h"
#include "core/library_state.h"
#include "varn.h"

namespace varn::core {

enum class RowState : std::uint32_t {
  kFree = ENTRY_FREE,
  kActive = ENTRY_ACTIVE,
  kExited = ENTRY_EXITED,  // the peer ended; it is started again on next use
  kDisabled = ENTRY_DISABLED,
  kStarting = ENTRY_STARTING,  // an asynchronous start waits for its answer
};

// The stream state of a row in one direction (send_stream, recv_stream).
enum class Stream : std::uint32_t {
  kClosed = 0,     // the peer ended, or this process sent it KILL or its exit notice
  kReady = 1,      // no stream open
  kStreaming = 2,  // between BEGIN and END
};

// The active entry count, turning the unset value into the default.
inline int ActiveCount() REQUIRES(kLibrary) {
  LibraryState& state = State();
  if (state.active_count == -1) state.active_count = VARN_DEFAULT_ENTRIES;
  return state.active_count;
}
inline bool ValidHandle(int h) REQUIRES(kLibrary) { return h >= 0 && h < ActiveCount(); }

// How many times a stored text (a row's address among them) has been
// replaced: every varn_util_strcpy that changed a field counts. While the
// count stays the same, a comparison made with a row's address still holds
// (the stream paths compare once per packet instead of once per record).
inline std::uint64_t TextChanges() REQUIRES(kLibrary) { return State().text_changes; }

// The text of the last KILL, INTR or SRVR_ERR: at most this many bytes.
inline constexpr std::size_t kSignalTextMax = 1023;

void NoteDisabledRow() REQUIRES(kLibrary);

class Row {
 public:
  explicit Row(int h) REQUIRES(kLibrary) : h_(h), e_(VarnMessage[h]) {}

  int handle() const { return h_; }
  VarnEntry& entry() { return e_; }
  const VarnEntry& entry() const { return e_; }

  RowState state() const { return static_cast<RowState>(e_.state); }
  bool is(RowState s) const { return state() == s; }
  // A Row exists only where the library's state is held (its constructor).
  void set_state(RowState s) NO_THREAD_SAFETY_ANALYSIS {
    if (s == RowState::kDisabled) NoteDisabledRow();
    e_.state = static_cast<std::uint32_t>(s);
  }

  Stream send_stream() const { return static_cast<Stream>(e_.send_stream); }
  Stream recv_stream() const { return static_cast<Stream>(e_.recv_stream); }
  void set_send_stream(Stream s) { e_.send_stream = static_cast<std::uint32_t>(s); }
  void set_recv_stream(Stream s) { e_.recv_stream = static_cast<std::uint32_t>(s); }
  void set_streams(Stream send, Stream recv) {
    set_send_stream(send);
    set_recv_stream(recv);
  }

  int last_category() const { return static_cast<int>(e_.last_category); }
  void set_last_category(int category) { e_.last_category = static_cast<std::uint32_t>(category); }
  // Forgets the last message, so that a wait sees what comes next.
  void ClearLast() { e_.last_category = VARN_NONE; }

  // A call waits for this row's messages: it takes them instead of the
  // callback. set_waiting_for_expected: a call that returns only the
  // categories it expects (the deadline calls), so the peer's interrupts
  // still reach the callback as they arrive.
  bool waiting() const { return e_.waiting != 0; }
  void set_waiting(bool on) { e_.waiting = on ? 1 : 0; }
  void set_waiting_for_expected() { e_.waiting = 2; }
  bool waiting_passes_interrupts() const { return e_.waiting == 2; }

  // The text of the last message taken from the peer: KILL, INTR and
  // SRVR_ERR keep theirs in the signal buffer, every other category in the
  // row's last_data. The text may hold NULs; one NUL follows it. Null when
  // there is none.
  const char* LastText() const REQUIRES(kLibrary);
  std::size_t LastLength() const { return static_cast<std::size_t>(e_.last_data_len); }
  // Copies the text and its NUL into buffer (an empty text when there is
  // none). Returns the text's length.
  std::size_t CopyLastText(char* buffer) const REQUIRES(kLibrary);

  // Records a message from the peer: its addresses (source: the peer,
  // destination: this process as the peer calls it), its category, and a
  // copy of its payload with a NUL after it. False (35) when a copy fails.
  bool Store(const char* destination, const char* source, int category, const char* payload,
             std::size_t length);
  // The same for a payload that went elsewhere (the stream buffer): only
  // its length is kept, and no stale text stays behind.
  bool StoreWithoutText(const char* destination, const char* source, int category,
                        std::size_t length);
  // Records a KILL, INTR or SRVR_ERR; its text goes to the signal buffer.
  // A text longer than kSignalTextMax is refused (false), unless `cut`
  // says to keep its first kSignalTextMax bytes.
  bool StoreSignal(int category, const char* payload, std::size_t length, bool cut)
      REQUIRES(kLibrary);

  // Frees the row: state, protocol fields and flags go to zero; the strings
  // stay allocated and are replaced when the row is used again.
  void Reset();
  // Frees the row after the peer's exit notice, which stays readable as
  // the row's last message for the wait or callback that takes it.
  void ResetKeepingNotice();

  // Makes the row address a peer: active, with these addresses, no last
  // message, both streams ready, interrupts not immediate. Other fields
  // are the caller's. False (35) when a copy fails.
  bool OpenTo(const char* address, const char* local_address);

 private:
  int h_;
  VarnEntry& e_;
};

// Lookups by server name. Both skip rows whose name is null. 1 with *h
// set, else 0.
int FindDisabledEntry(int* h, const char* name) REQUIRES(kLibrary);
// Whether a row was ever disabled through Row::set_state in this process:
// until then no send needs to look for one (a send is the hot path).
bool AnyRowDisabled() REQUIRES(kLibrary);
// Whether row h's server name names a disabled row: messages to it are
// dropped and waits on it answer at once.
bool PeerDisabled(int h) REQUIRES(kLibrary);
int FindEnabledEntry(int* h, const char* name) REQUIRES(kLibrary);

// A row created for an unknown message source gets its name from the hub's
// process list. The layer that can ask the hub registers how (at
// varn_init); without it the row stays unnamed. The function returns the
// handle, or -1 when the name cannot be had (the row stays in use).
using SourceNamer = int (*)(int h, const char* address);
void SetSourceNamer(SourceNamer namer);

}  // namespace varn::core

#endif  // VARN_CORE_ROWS_H_
