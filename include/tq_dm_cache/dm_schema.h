#ifndef TQ_DM_SCHEMA_H
#define TQ_DM_SCHEMA_H

/*
 * The schema at run time: find a message or enumeration type by its name, walk all of them, read the descriptors' extra
 * words. The descriptors themselves (p_dev__card_info__descriptor, ...) stand in p_dev.pb-c.h, p_intf.pb-c.h and
 * p_mng.pb-c.h.
 *
 * Everything here is constant for the life of the process: no lock, any thread. A null argument gives null or 0.
 */

#include "dm_api.h"

#include <protobuf-c/protobuf-c.h>

#ifdef __cplusplus
extern "C" {
#endif

/* By full name, such as "p_dev.card_info"; null when there is none. */
DM_API const ProtobufCMessageDescriptor *dm_schema_find_message(const char *name);
DM_API const ProtobufCEnumDescriptor *dm_schema_find_enum(const char *name);

/* All of them, package by package (p_dev, p_intf, p_mng), by name within a package. */
DM_API const ProtobufCMessageDescriptor *const *dm_schema_messages(uint32_t *count);
DM_API const ProtobufCEnumDescriptor *const *dm_schema_enums(uint32_t *count);

/* Length in bytes of the package name: 5 for p_dev and p_mng, 6 for p_intf. */
DM_API uint32_t dm_schema_package_length(const ProtobufCMessageDescriptor *message);

/* Length in bytes of the message name without its package: 14 for p_dev.dp_lib_my_info. */
DM_API uint32_t dm_schema_name_length(const ProtobufCMessageDescriptor *message);

/* 1: a key field of a key message (its name begins with t_); 2: the key of an object (its field index); 0: neither. */
DM_API uint32_t dm_schema_key_mark(const ProtobufCFieldDescriptor *field);

#ifdef __cplusplus
}
#endif

#endif
