#include "core/oxEventBacklog.h"

void oxEventBacklog::Trim(size_t limit, oxEventNodeList* removed) {
  for (size_t i = 0; i < limit && Size() > capacity_; ++i) {
    removed->PushBack(DropsDebugInfo() ? debug_info_.PopFront() : ListOfNewest().PopBack());
  }
}

oxEventNodeList& oxEventBacklog::ListOfNewest() {
  if (debug_info_.IsEmpty()) return warning_error_;
  if (warning_error_.IsEmpty()) return debug_info_;
  return debug_info_.Back().order > warning_error_.Back().order ? debug_info_ : warning_error_;
}
