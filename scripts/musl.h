// Included before each source for the syntax check against musl's headers. Defines what Debian's libstdc++, which is
// configured for glibc, takes from glibc's headers. A libstdc++ for musl does not need it.
#include <locale.h>
#define __GLIBC_PREREQ(major, minor) 0
#define __BEGIN_DECLS extern "C" {
#define __END_DECLS }
#define pthread_cond_clockwait(condition, mutex, clock, time) pthread_cond_timedwait(condition, mutex, time)
#define pthread_mutex_clocklock(mutex, clock, time) pthread_mutex_timedlock(mutex, time)
using __locale_t = locale_t;
enum {
  _ISupper,
  _ISlower,
  _ISalpha,
  _ISdigit,
  _ISxdigit,
  _ISspace,
  _ISprint,
  _ISgraph,
  _IScntrl,
  _ISpunct,
  _ISalnum,
  _ISblank
};
