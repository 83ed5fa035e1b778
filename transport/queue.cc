// The message queue and the out-of-band lane.
//
// Thread ownership: the application's thread, and the input thread only
// while it holds the application's thread still (interrupt handling). No
// lock: the two never run here at the same time.
//
// A queued message must reach a later wait on its sender. Queueing a
// message sets VarnSigusr1Caught, and turning the lane on sets it whenever
// the queue holds something, so the first read of every wait looks into the
// queue before it reads anything new; the flag clears itself when nothing
// in the queue qualifies. Without this, a DONE or a whole stream from one
// peer that was queued while the process waited on another would never be
// seen by a later wait on the first peer.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "varn.h"

namespace {

struct QueuedMessage {
  char* source;
  char* destination;
  char* payload;
  int category;
  size_t length;
  QueuedMessage* next;
};

QueuedMessage* g_head = nullptr;
QueuedMessage* g_tail = nullptr;
// Strings of the message handed out last; freed at the next take or flush.
char* g_last_source = nullptr;
char* g_last_destination = nullptr;
char* g_last_payload = nullptr;

int g_outband_channel = -1;
int* g_outband_categories = nullptr;  // 58 entries, allocated by varn_queue_init

char* CopyText(const char* text) { return text ? strdup(text) : nullptr; }

bool AnyCategorySet(const int* set) {
  if (set == nullptr) return false;
  for (int i = 0; i < VARN_CATEGORY_COUNT; ++i) {
    if (set[i] == 1) return true;
  }
  return false;
}

void FreeLastHandedOut() {
  std::free(g_last_source);
  std::free(g_last_destination);
  std::free(g_last_payload);
  g_last_source = g_last_destination = g_last_payload = nullptr;
}

void HandOut(QueuedMessage* m, char** source, char** destination, char** payload, int* category,
             size_t* length) {
  FreeLastHandedOut();
  g_last_source = *source = m->source;
  g_last_destination = *destination = m->destination;
  g_last_payload = *payload = m->payload;
  *category = m->category;
  *length = m->length;
}

// Whether the lane lets a queued message through. The row lookup inside
// reports 32 for an unknown source; walking the queue must not leave that
// behind for the wait that asked.
bool Qualifies(const char* source, int category) {
  int saved = VarnErrorNo;
  bool ok = varn_queue_is_outband_chan(source, category) != 0;
  VarnErrorNo = saved;
  return ok;
}

}  // namespace

extern "C" int varn_queue_init(void) noexcept {
  g_head = g_tail = nullptr;
  std::free(g_outband_categories);
  g_outband_categories = static_cast<int*>(std::calloc(VARN_CATEGORY_COUNT, sizeof(int)));
  return g_outband_categories != nullptr;
}

extern "C" int varn_queue_deinit(void) noexcept {
  varn_queue_flush_queue();
  std::free(g_outband_categories);
  g_outband_categories = nullptr;
  return 1;
}

extern "C" int varn_queue_put_msg(const char* source, const char* destination, const char* payload,
                                  int category, size_t length) noexcept {
  varn_util_hold_sigusr1(1);
  auto* m = static_cast<QueuedMessage*>(std::malloc(sizeof(QueuedMessage)));
  if (m == nullptr) {
    VarnErrorNo = VARN_E_MALLOC;
    varn_deinit();
    return 0;
  }
  m->source = CopyText(source);
  m->destination = CopyText(destination);
  m->payload = static_cast<char*>(std::malloc(length + 1));
  if ((source && !m->source) || (destination && !m->destination) || !m->payload) {
    std::free(m->source);
    std::free(m->destination);
    std::free(m->payload);
    std::free(m);
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
  m->next = nullptr;
  if (g_tail != nullptr) {
    g_tail->next = m;
  } else {
    g_head = m;
  }
  g_tail = m;
  VarnSigusr1Caught = 1;
  varn_queueMsgCount(1);
  varn_post_quonin_msg();
  varn_util_release_sigusr1(1);
  return 1;
}

extern "C" int varn_queue_get_msg(char** source, char** destination, char** payload, int* category,
                                  size_t* length) noexcept {
  if (g_head == nullptr) return 0;
  varn_util_hold_sigusr1(1);
  QueuedMessage* m = g_head;
  HandOut(m, source, destination, payload, category, length);
  g_head = m->next;
  if (g_head == nullptr) g_tail = nullptr;
  std::free(m);
  varn_queueMsgCount(-1);
  varn_util_release_sigusr1(1);
  return 1;
}

extern "C" int varn_queue_get_outband_msg(char** source, char** destination, char** payload,
                                          int* category, size_t* length) noexcept {
  if (VarnSigusr1Caught == 0) return 0;
  QueuedMessage* prev = nullptr;
  QueuedMessage* m = g_head;
  while (m != nullptr && !Qualifies(m->source, m->category)) {
    prev = m;
    m = m->next;
  }
  if (m == nullptr) {
    VarnSigusr1Caught = 0;
    return 0;
  }
  varn_util_hold_sigusr1(1);
  HandOut(m, source, destination, payload, category, length);
  if (prev == nullptr) {
    g_head = m->next;
  } else {
    prev->next = m->next;
  }
  if (g_tail == m) g_tail = prev;
  std::free(m);
  varn_queueMsgCount(-1);
  varn_util_release_sigusr1(1);
  return 1;
}

extern "C" int varn_queue_has_msg(void) noexcept { return g_head != nullptr; }

extern "C" int varn_queue_flush_queue(void) noexcept {
  varn_util_hold_sigusr1(1);
  while (g_head != nullptr) {
    QueuedMessage* m = g_head;
    g_head = m->next;
    std::free(m->source);
    std::free(m->destination);
    std::free(m->payload);
    std::free(m);
  }
  g_tail = nullptr;
  FreeLastHandedOut();
  varn_util_release_sigusr1(1);
  return 1;
}

extern "C" int varn_queue_outband_on(void) noexcept { return g_outband_channel != -1; }

extern "C" int varn_queue_set_outband(varnHandle h, const int* categories) noexcept {
  g_outband_channel = h;
  if (categories != nullptr && g_outband_categories != nullptr) {
    std::memcpy(g_outband_categories, categories, VARN_CATEGORY_COUNT * sizeof(int));
  }
  if (g_head != nullptr) VarnSigusr1Caught = 1;  // a new wait looks into the queue first
  return 1;
}

extern "C" int varn_queue_reset_outband(void) noexcept {
  g_outband_channel = -1;
  if (g_outband_categories != nullptr) {
    std::memset(g_outband_categories, 0, VARN_CATEGORY_COUNT * sizeof(int));
  }
  return 1;
}

extern "C" int varn_queue_is_outband_chan(const char* source, int category) noexcept {
  if (source == nullptr) return 0;
  int h = varnP_find_entry_exact(source, 1);
  if (h < 0 || h != g_outband_channel) return 0;
  if (AnyCategorySet(g_outband_categories)) {
    return category >= 0 && category < VARN_CATEGORY_COUNT ? g_outband_categories[category] : 0;
  }
  return 1;
}

extern "C" int varn_queue_get_outband(int* channel, int** categories) noexcept {
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
  std::free(*set);
  *set = nullptr;
  return 1;
}

extern "C" int varn_queue_is_signal_msg(const char* source, int category, const char* payload,
                                        size_t length) noexcept {
  switch (category) {
    case VARN_STATUS_Q:
    case VARN_KILL:
    case VARN_INTR:
    case VARN_SRVR_ERR:
    case VARN_QUERY_Q:
      return 1;
    case VARN_STATUS:
      return source != nullptr && std::strcmp(source, "quon") == 0 && payload != nullptr &&
             length != 0 && std::strcmp(payload, "IDLE") == 0;
    default:
      return 0;
  }
}

// Signal messages are never stored on this platform: interrupts are
// handled by the input thread instead. The call reports success and hands
// out nothing.
extern "C" int varn_queue_get_signal_msg(char** source, char** destination, char** payload,
                                         int* category, size_t* length) noexcept {
  *source = *destination = *payload = nullptr;
  *category = 0;
  *length = 0;
  return 1;
}
