/* The public header compiled as C. The function is called from the C++
   interface tests so that the C view of the types is exercised at run time. */
#include <stddef.h>

#include "varn.h"

#if UINTPTR_MAX == 0xffffffffffffffffu
/* Callers outside the library index VarnMessage directly, so the row layout
   on 64-bit platforms is part of the interface. */
_Static_assert(sizeof(VarnEntry) == 136, "VarnEntry layout changed");
_Static_assert(offsetof(VarnEntry, last_data_len) == 40, "VarnEntry layout changed");
_Static_assert(offsetof(VarnEntry, debug_input) == 96, "VarnEntry layout changed");
_Static_assert(offsetof(VarnEntry, immediate_intr_kill) == 128, "VarnEntry layout changed");
_Static_assert(sizeof(VarnFileEntry) == 56, "VarnFileEntry layout changed");
#endif

int varn_header_c_check(void);

/* Returns 1 when the header's constants and the library agree as C sees them. */
int varn_header_c_check(void) {
  VarnEntry row = {0};
  varnHandle h = -1;
  char word[14];
  int code = VARN_NONE;

  row.state = ENTRY_EXITED;
  row.last_category = VARN_DONE;
  if (varn_util_int_to_category(VARN_SRVR_ERR, word) != 1) return 0;
  if (varn_util_category_to_int(word, &code) != 1 || code != VARN_SRVR_ERR) return 0;
  if (varn_get_error_message(VARN_E_MALLOC) == NULL) return 0;
  return h == -1 && row.state == 2 && VARN_CHAN_STANDALONE == 2 &&
         sizeof(VarnMessage) / sizeof(VarnMessage[0]) == VARN_MAX_ENTRIES &&
         VARN_ERROR_COUNT == 81 && VARN_CATEGORY_BIT(VARN_DONE) == ((uint64_t)1 << VARN_DONE);
}
