// The C boundary: no exception leaves a C function.
#pragma once

#include <exception>

#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

// What the standard library throws here means that memory, or threads, ran out.
template <class F> int32_t guarded(F &&call) {
    try {
        return call();
    } catch (const std::exception &) {
        return TQ_MOM_E_MEMORY;
    }
}

}  // namespace tq
