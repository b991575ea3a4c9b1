#ifndef KRO_THREAD_NAME_H
#define KRO_THREAD_NAME_H

#include <pthread.h>

namespace kro::detail
{
/// Names the calling thread for `top -H` and for debuggers. A thread that gets no name of its own has that of the
/// thread which started it.
/// @param name  at most 15 characters; a longer one changes nothing.
inline void nameThisThread(const char* name)
{
    pthread_setname_np(pthread_self(), name);
}
}  // namespace kro::detail

#endif
