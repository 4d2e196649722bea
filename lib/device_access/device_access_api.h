/*
 * What every public header of the library shares: the mark of an exported name, and C linkage.
 */
#ifndef DEVICE_ACCESS_DEVICE_ACCESS_API_H
#define DEVICE_ACCESS_DEVICE_ACCESS_API_H

/* The library hides its symbols by default; what carries this mark is its interface. */
#define DEVICE_ACCESS_API __attribute__((visibility("default")))

/* Enumerations travel as int, and calls must cope with any value of one: C++ is told so. */
#ifdef __cplusplus
#define DEVICE_ACCESS_INT_ENUM : int
#else
#define DEVICE_ACCESS_INT_ENUM
#endif

#ifdef __cplusplus
#define DEVICE_ACCESS_BEGIN_DECLS extern "C" {
#define DEVICE_ACCESS_END_DECLS }
#else
#define DEVICE_ACCESS_BEGIN_DECLS
#define DEVICE_ACCESS_END_DECLS
#endif

#endif
