// The message queue and the out-of-band lane.
//
// Thread ownership: the application's thread, and the input thread only
// while it holds the application's thread still (interrupt handling). No
// lock: the two never run here at the same time.
//
// Messages are kept in arrival order on one list, and each is also chained
// with the other messages of the same source and category. A wait that
// takes only its peer's messages (the out-of-band lane) looks at the heads
// of that peer's chains instead of walking the whole queue, so thousands of
// messages queued from other peers cost it nothing.
//
// A queued message must reach a later wait on its sender. Queueing a
// message sets VarnSigusr1Caught, and turning the lane on sets it whenever
// the queue holds something, so the first read of every wait looks into the
// queue before it reads anything new; the flag clears itself when nothing
// in the queue qualifies. Without this, a DONE or a whole stream from one
// peer that was queued while the process waited on another would never be
// seen by a later wait on the first peer.
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>

#include "core/library_state.h"
#include "core/rows.h"
#include "transport/queue.h"
#include "transport/upcalls.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace {

struct QueuedMessage {
  char* source;
  char* destination;
  char* payload;
  int category;
  size_t length;
  std::uint64_t sequence;  // arrival order
  bool put_back;           // put back by the application (varn_put_msg_in_queue)
  // Arrival order, all messages.
  QueuedMessage* prev;
  QueuedMessage* next;
  // Arrival order, messages of the same source and category.
  QueuedMessage* chain_next;
};

struct Chain {
  QueuedMessage* head = nullptr;
  QueuedMessage* tail = nullptr;
};

// The chains of one source, one per category, and how many messages they
// hold together (the entry is dropped when that reaches 0).
struct SourceChains {
  std::array<Chain, VARN_CATEGORY_COUNT> by_category;
  std::size_t count = 0;
};

using varn::core::kLibrary;

QueuedMessage* g_head GUARDED_BY(kLibrary) = nullptr;
QueuedMessage* g_tail GUARDED_BY(kLibrary) = nullptr;
std::uint64_t g_next_sequence GUARDED_BY(kLibrary) = 0;
// Messages with a source, by source. Messages without a source are only on
// the arrival list: no lane ever lets them through.
std::unordered_map<std::string, SourceChains>* g_by_source GUARDED_BY(kLibrary) = nullptr;

// Strings of the message handed out last; freed at the next take or flush.
char* g_last_source GUARDED_BY(kLibrary) = nullptr;
char* g_last_destination GUARDED_BY(kLibrary) = nullptr;
char* g_last_payload GUARDED_BY(kLibrary) = nullptr;

int g_outband_channel GUARDED_BY(kLibrary) = -1;
// Whether the lane also lets through messages the application put back.
bool g_lane_takes_put_back GUARDED_BY(kLibrary) = false;
// VARN_CATEGORY_COUNT entries, allocated by varn_queue_init.
int* g_outband_categories GUARDED_BY(kLibrary) = nullptr;

char* CopyText(const char* text) { return text ? strdup(text) : nullptr; }

bool AnyCategorySet(const int* set) {
  if (set == nullptr) return false;
  for (int i = 0; i < VARN_CATEGORY_COUNT; ++i) {
    if (set[i] == 1) return true;
  }
  return false;
}

int ChainIndex(int category) {
  return category >= 0 && category < VARN_CATEGORY_COUNT ? category : 0;
}

// The chains of messages put back by the application are kept apart from
// those of messages that arrived: a put-back message waits for a later
// call, never for the wait that put it back (the lane of a plain wait does
// not take it; see varn_put_msg_in_queue).
std::string ChainKey(const char* source, bool put_back) {
  std::string key = source;
  if (put_back) key += '\x01';  // no address holds this character
  return key;
}

std::unordered_map<std::string, SourceChains>& BySource() REQUIRES(kLibrary) {
  if (g_by_source == nullptr) g_by_source = new std::unordered_map<std::string, SourceChains>();
  return *g_by_source;
}

void Link(QueuedMessage* m) REQUIRES(kLibrary) {
  m->prev = g_tail;
  m->next = nullptr;
  if (g_tail != nullptr) {
    g_tail->next = m;
  } else {
    g_head = m;
  }
  g_tail = m;
  m->chain_next = nullptr;
  if (m->source == nullptr) return;
  SourceChains& chains = BySource()[ChainKey(m->source, m->put_back)];
  Chain& chain = chains.by_category[ChainIndex(m->category)];
  if (chain.tail != nullptr) {
    chain.tail->chain_next = m;
  } else {
    chain.head = m;
  }
  chain.tail = m;
  ++chains.count;
}

// Removes m from both orders. A message only ever leaves its chain from
// the front: it is the oldest of its source and category still queued,
// because every take hands out the oldest message it may.
void Unlink(QueuedMessage* m) REQUIRES(kLibrary) {
  if (m->prev != nullptr) {
    m->prev->next = m->next;
  } else {
    g_head = m->next;
  }
  if (m->next != nullptr) {
    m->next->prev = m->prev;
  } else {
    g_tail = m->prev;
  }
  if (m->source == nullptr || g_by_source == nullptr) return;
  auto it = g_by_source->find(ChainKey(m->source, m->put_back));
  if (it == g_by_source->end()) return;
  Chain& chain = it->second.by_category[ChainIndex(m->category)];
  chain.head = m->chain_next;
  if (chain.head == nullptr) chain.tail = nullptr;
  if (--it->second.count == 0) g_by_source->erase(it);
}

void FreeLastHandedOut() REQUIRES(kLibrary) {
  std::free(g_last_source);
  std::free(g_last_destination);
  std::free(g_last_payload);
  g_last_source = g_last_destination = g_last_payload = nullptr;
}

void HandOut(QueuedMessage* m, char** source, char** destination, char** payload, int* category,
             size_t* length) REQUIRES(kLibrary) {
  FreeLastHandedOut();
  g_last_source = *source = m->source;
  g_last_destination = *destination = m->destination;
  g_last_payload = *payload = m->payload;
  *category = m->category;
  *length = m->length;
}

// The oldest queued message that the lane lets through, or null. The lane
// lets a message through when its source's row (the first row in use with
// that address) is the lane's row; so only the messages whose source is
// that row's address can qualify.
QueuedMessage* OldestForLane() REQUIRES(kLibrary) {
  int h = g_outband_channel;
  if (h < 0 || h >= VARN_MAX_ENTRIES || g_by_source == nullptr) return nullptr;
  const VarnEntry& row = VarnMessage[h];
  if (row.state == ENTRY_FREE || row.address == nullptr) return nullptr;
  int saved = VarnErrorNo;
  int first = varnP_find_entry_exact(row.address, 1);
  VarnErrorNo = saved;
  if (first != h) return nullptr;
  bool filtered = AnyCategorySet(g_outband_categories);
  QueuedMessage* oldest = nullptr;
  for (bool put_back : {false, true}) {
    if (put_back && !g_lane_takes_put_back) break;
    auto it = g_by_source->find(ChainKey(row.address, put_back));
    if (it == g_by_source->end()) continue;
    for (int c = 0; c < VARN_CATEGORY_COUNT; ++c) {
      if (filtered && g_outband_categories[c] != 1) continue;
      QueuedMessage* m = it->second.by_category[c].head;
      if (m != nullptr && (oldest == nullptr || m->sequence < oldest->sequence)) oldest = m;
    }
  }
  return oldest;
}

// Hands m out and takes it off the queue.
void TakeOut(QueuedMessage* m, char** source, char** destination, char** payload, int* category,
             size_t* length) REQUIRES(kLibrary) {
  varn_util_hold_sigusr1(1);
  HandOut(m, source, destination, payload, category, length);
  Unlink(m);
  std::free(m);
  varn_queueMsgCount(-1);
  varn_util_release_sigusr1(1);
}

void FreeMessage(QueuedMessage* m) {
  std::free(m->source);
  std::free(m->destination);
  std::free(m->payload);
  std::free(m);
}

}  // namespace

extern "C" int varn_queue_init(void) noexcept {
  varn::core::OnApplicationThread();
  varn_queue_flush_queue();
  std::free(g_outband_categories);
  g_outband_categories = static_cast<int*>(std::calloc(VARN_CATEGORY_COUNT, sizeof(int)));
  return g_outband_categories != nullptr;
}

extern "C" int varn_queue_deinit(void) noexcept {
  varn::core::OnApplicationThread();
  varn_queue_flush_queue();
  std::free(g_outband_categories);
  g_outband_categories = nullptr;
  return 1;
}

namespace {

int Put(const char* source, const char* destination, const char* payload, int category,
        size_t length, bool put_back) REQUIRES(kLibrary) {
  varn_util_hold_sigusr1(1);
  auto* m = static_cast<QueuedMessage*>(std::malloc(sizeof(QueuedMessage)));
  if (m == nullptr) {
    VarnErrorNo = VARN_E_MALLOC;
    varn::transport::CallShutDown();  // ends the process
    return 0;
  }
  m->source = CopyText(source);
  m->destination = CopyText(destination);
  m->payload = static_cast<char*>(std::malloc(length + 1));
  if ((source && !m->source) || (destination && !m->destination) || !m->payload) {
    FreeMessage(m);
    VarnErrorNo = VARN_E_MALLOC;
    varn_util_release_sigusr1(1);
    return 0;
  }
  if (length > 0 && payload != nullptr) std::memcpy(m->payload, payload, length);
  m->payload[length] = '\0';
  if (source != nullptr && destination != nullptr) {
    // Acknowledge at once what the sender waits for; the message itself is
    // handled later, without a second ACK.
    int renamed = category == VARN_CMD     ? VARN_CMD_ACKSENT
                  : category == VARN_BEGIN ? VARN_BEGIN_ACKSENT
                  : category == VARN_END   ? VARN_END_ACKSENT
                                           : category;
    if (renamed != category) {
      varn_send_packet(source, destination, VARN_ACK, nullptr, 0);
      category = renamed;
    }
  }
  m->category = category;
  m->length = length;
  m->sequence = g_next_sequence++;
  m->put_back = put_back;
  Link(m);
  if (!put_back) VarnSigusr1Caught = 1;
  varn_queueMsgCount(1);
  varn_post_quonin_msg();
  varn_util_release_sigusr1(1);
  return 1;
}

}  // namespace

namespace varn::transport {

int PutBack(const char* source, const char* destination, const char* payload, int category,
            size_t length) {
  return Put(source, destination, payload, category, length, true);
}

void LaneTakesPutBack() { g_lane_takes_put_back = true; }

}  // namespace varn::transport

extern "C" int varn_queue_put_msg(const char* source, const char* destination, const char* payload,
                                  int category, size_t length) noexcept {
  varn::core::OnApplicationThread();
  return Put(source, destination, payload, category, length, false);
}

extern "C" int varn_queue_get_msg(char** source, char** destination, char** payload, int* category,
                                  size_t* length) noexcept {
  varn::core::OnApplicationThread();
  if (g_head == nullptr) return 0;
  TakeOut(g_head, source, destination, payload, category, length);
  return 1;
}

extern "C" int varn_queue_get_outband_msg(char** source, char** destination, char** payload,
                                          int* category, size_t* length) noexcept {
  varn::core::OnApplicationThread();
  if (VarnSigusr1Caught == 0) return 0;
  QueuedMessage* m = OldestForLane();
  if (m == nullptr) {
    VarnSigusr1Caught = 0;
    return 0;
  }
  TakeOut(m, source, destination, payload, category, length);
  return 1;
}

extern "C" int varn_queue_has_msg(void) noexcept {
  varn::core::OnApplicationThread();
  return g_head != nullptr;
}

extern "C" int varn_queue_flush_queue(void) noexcept {
  varn::core::OnApplicationThread();
  varn_util_hold_sigusr1(1);
  while (g_head != nullptr) {
    QueuedMessage* m = g_head;
    g_head = m->next;
    FreeMessage(m);
  }
  g_tail = nullptr;
  if (g_by_source != nullptr) g_by_source->clear();
  FreeLastHandedOut();
  varn_util_release_sigusr1(1);
  return 1;
}

extern "C" int varn_queue_outband_on(void) noexcept {
  varn::core::OnApplicationThread();
  return g_outband_channel != -1;
}

extern "C" int varn_queue_set_outband(varnHandle h, const int* categories) noexcept {
  varn::core::OnApplicationThread();
  g_outband_channel = h;
  if (categories != nullptr && g_outband_categories != nullptr) {
    std::memcpy(g_outband_categories, categories, VARN_CATEGORY_COUNT * sizeof(int));
  }
  if (g_head != nullptr) VarnSigusr1Caught = 1;  // a new wait looks into the queue first
  return 1;
}

extern "C" int varn_queue_reset_outband(void) noexcept {
  varn::core::OnApplicationThread();
  g_outband_channel = -1;
  g_lane_takes_put_back = false;
  if (g_outband_categories != nullptr) {
    std::memset(g_outband_categories, 0, VARN_CATEGORY_COUNT * sizeof(int));
  }
  return 1;
}

extern "C" int varn_queue_is_outband_chan(const char* source, int category) noexcept {
  varn::core::OnApplicationThread();
  if (source == nullptr) return 0;
  int h = varnP_find_entry_exact(source, 1);
  if (h < 0 || h != g_outband_channel) return 0;
  if (AnyCategorySet(g_outband_categories)) {
    return category >= 0 && category < VARN_CATEGORY_COUNT ? g_outband_categories[category] : 0;
  }
  return 1;
}

extern "C" int varn_queue_get_outband(int* channel, int** categories) noexcept {
  varn::core::OnApplicationThread();
  *channel = g_outband_channel;
  *categories = static_cast<int*>(std::malloc(VARN_CATEGORY_COUNT * sizeof(int)));
  if (*categories == nullptr) return 0;
  if (g_outband_categories != nullptr) {
    std::memcpy(*categories, g_outband_categories, VARN_CATEGORY_COUNT * sizeof(int));
  } else {
    std::memset(*categories, 0, VARN_CATEGORY_COUNT * sizeof(int));
  }
  return 1;
}

extern "C" int varn_queue_set_waitcat(int** set, ...) noexcept {
  varn::core::OnApplicationThread();
  std::free(*set);
  *set = static_cast<int*>(std::calloc(VARN_CATEGORY_COUNT, sizeof(int)));
  if (*set == nullptr) return 0;
  va_list ap;
  va_start(ap, set);
  for (int code = va_arg(ap, int); code != 0; code = va_arg(ap, int)) {
    if (code > 0 && code < VARN_CATEGORY_COUNT) (*set)[code] = 1;
  }
  va_end(ap);
  return 1;
}

extern "C" int varn_queue_free_waitcat(int** set) noexcept {
  varn::core::OnApplicationThread();
  std::free(*set);
  *set = nullptr;
  return 1;
}

extern "C" int varn_queue_is_signal_msg(const char* source, int category, const char* payload,
                                        size_t length) noexcept {
  varn::core::OnApplicationThread();
  switch (category) {
    case VARN_STATUS_Q:
    case VARN_KILL:
    case VARN_INTR:
    case VARN_SRVR_ERR:
    case VARN_QUERY_Q:
      return 1;
    case VARN_STATUS:
      return source != nullptr && std::strcmp(source, VARN_HUB_ADDRESS) == 0 &&
             payload != nullptr && length != 0 &&
             std::strcmp(payload, varn::wire::StatusWord(VARN_STATUS_IDLE)) == 0;
    default:
      return 0;
  }
}

// No signal message is ever stored: INTR and KILL are handled by the input
// thread as they arrive. The call reports success and hands out nothing.
extern "C" int varn_queue_get_signal_msg(char** source, char** destination, char** payload,
                                         int* category, size_t* length) noexcept {
  varn::core::OnApplicationThread();
  *source = *destination = *payload = nullptr;
  *category = 0;
  *length = 0;
  return 1;
}
