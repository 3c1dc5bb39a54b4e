#pragma once

/* The kind of a data source, a 32-bit number whose values belong to the application: the library
 * stores, compares and filters them and defines none. Shared by the C and the C++ interfaces. */
#ifdef __cplusplus
#include <cstdint>
enum KV_LogDataSourceType : std::int32_t {};
#else
#include <stdint.h>
typedef int32_t KV_LogDataSourceType;
#endif
