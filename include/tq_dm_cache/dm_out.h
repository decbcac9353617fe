#ifndef TQ_DM_OUT_H
#define TQ_DM_OUT_H

/*
 * An out-value that is always a message of one kind: the address of a pointer to that kind, or an array of such pointers. A C
 * compiler sees the mistake. A C++ program may hand in the address of any pointer, as older programs do; when DM_TYPED_OUT is
 * defined before the first header, its compiler sees the mistake, too.
 */

#include "dm_api.h"

#if !defined(__cplusplus) || defined(DM_TYPED_OUT)
#include "tq_dm_cache/p_dev.pb-c.h"
#define DM_OUT(Message) Message **
#else
#define DM_OUT(Message) void *
#endif

#endif
