// Every message and enumeration of the schema, sorted by full name: generated into schema_tables.c, searched by schema.cpp.
#pragma once

#include <protobuf-c/protobuf-c.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Generated code is exported; these are not.
#pragma GCC visibility push(hidden)
extern const ProtobufCMessageDescriptor *const dm_schema_table_messages[];
extern const uint32_t dm_schema_table_messages_count;
extern const ProtobufCEnumDescriptor *const dm_schema_table_enums[];
extern const uint32_t dm_schema_table_enums_count;
#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif
