// Android libcutils system properties.
#pragma once

#include <stdint.h>
#include <sys/system_properties.h>

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

int property_get(const char* key, char* value, const char* default_value);
int8_t property_get_bool(const char* key, int8_t default_value);
int64_t property_get_int64(const char* key, int64_t default_value);
int32_t property_get_int32(const char* key, int32_t default_value);
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
