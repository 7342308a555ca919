/*
 * mtx_base64_lut.h - lookup rows of the vector base64 kernels (one 16-byte
 * row, repeated for each 128-bit lane).
 *
 * The LO and HI rows hold bit sets for the low and high nibble of a byte:
 * their AND is zero exactly for the 64 alphabet characters (bytes from
 * 0x80 up have a high nibble whose set meets every low-nibble set).  ROLL
 * holds the offset that takes a character to its value, chosen by its high
 * nibble; "/" shares its nibble with "+" and is moved to a row of its own
 * by adding its compare mask (-1) to the index.  PACK gathers the three
 * bytes of each 32-bit lane (left in big-endian order by the multiply-adds)
 * into the first twelve bytes of a 128-bit lane.
 */
#ifndef TARNPLAT_MTX_BASE64_LUT_H
#define TARNPLAT_MTX_BASE64_LUT_H

#define TARN_B64_LUT_LO \
  0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A
#define TARN_B64_LUT_HI \
  0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10
#define TARN_B64_LUT_ROLL 0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0
#define TARN_B64_PACK 2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1

#endif
