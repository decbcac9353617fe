#!/bin/sh
# Which pointers a compiler takes for the out-value of a query: out_test.sh CC CXX -I...
set -u
cc=$1 cxx=$2
shift 2

check() { # check taken|refused POINTEE COMPILER...
    wanted=$1 pointee=$2
    shift 2
    if printf '#include "tq_dm_cache/ndm.h"\n#include "tq_dm_cache/p_dev.pb-c.h"\nvoid f(void);\nvoid f(void) { %s *out; ndm_get_vsd_port_by_ifx(1, &out); }\n' \
        "$pointee" | "$@" -Werror -fsyntax-only - 2> /dev/null; then is=taken; else is=refused; fi
    [ $is = "$wanted" ] || { echo "$*: $pointee is $is" >&2; exit 1; }
}

for kind in PDev__VsdPortAttr:taken PDev__VsdPort:refused ProtobufCMessage:refused; do
    check "${kind#*:}" "${kind%:*}" "$cc" "$@" -x c
    check "${kind#*:}" "${kind%:*}" "$cxx" "$@" -DDM_TYPED_OUT -x c++
    check taken "${kind%:*}" "$cxx" "$@" -x c++
done
