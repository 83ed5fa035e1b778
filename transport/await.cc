#include "transport/await.h"

#include "core/rows.h"
#include "varn.h"

namespace varn::transport {

void CategorySet::Fill(int* entries) const {
  for (int code = 0; code < VARN_CATEGORY_COUNT; ++code) entries[code] = contains(code) ? 1 : 0;
}

Lane::Lane(int h, CategorySet categories) {
  int entries[VARN_CATEGORY_COUNT];
  categories.Fill(entries);
  varn_util_hold_sigusr1(1);
  varn_queue_set_outband(h, entries);
}

Lane::~Lane() {
  varn_queue_reset_outband();
  varn_util_release_sigusr1(1);
}

bool AwaitRow(int h, CategorySet until, bool lane, int wait) {
  core::Row row(h);
  row.ClearLast();
  auto arrived = [&row, until] { return until.contains(row.last_category()); };
  if (!lane) return AwaitUntil(arrived, wait);
  Lane only(h, until);
  return AwaitUntil(arrived, wait);
}

bool AwaitAnswer(const core::AwaitingAnswer& row, CategorySet until) {
  return AwaitUntil([&row, until] { return until.contains(row.category()); });
}

}  // namespace varn::transport
