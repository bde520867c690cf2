/* The callback of oxEvent/journald.h, which has only inline functions, as a shared library. */
#include "../include/oxEvent/journald.h"

OXEVENT_API void WriteToJournal(const oxEventRecord* event, void* user_data) {
  oxEventJournalCallback(event, user_data);
}
