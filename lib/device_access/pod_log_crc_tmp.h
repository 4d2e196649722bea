/*
 * The checksum of POD and POST log records: the CRC-32 of POSIX cksum (generator polynomial
 * 0x04C11DB7, most significant bit first). No call keeps state or touches errno.
 */
#ifndef DEVICE_ACCESS_POD_LOG_CRC_TMP_H
#define DEVICE_ACCESS_POD_LOG_CRC_TMP_H

#include <stddef.h>
#include <stdint.h>

#include <device_access/device_access_api.h>

DEVICE_ACCESS_BEGIN_DECLS

/*
 * Run len bytes of buf through the CRC register, starting from crc. Returns the register, without
 * the final inversion; crc itself when len is 0.
 */
DEVICE_ACCESS_API uint32_t crc32_posix(uint32_t crc, const void *buf, uint32_t len);

/*
 * The cksum CRC of len bytes at data: the bytes from a register of 0, then the length itself (as
 * few bytes as its low 32 bits need, lowest first), and the complement of the result. Of no bytes
 * it is 0xFFFFFFFF; of the digits "123456789", 0x377A6011.
 */
DEVICE_ACCESS_API uint32_t crc32_cksum(const void *data, size_t len);

DEVICE_ACCESS_END_DECLS

#endif
