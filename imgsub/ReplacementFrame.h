#pragma once

#include <cstddef>
#include <cstdint>

/**
 * The layout of a replacement frame: one row of bytes, a multiple of 16, that begins with the pixels at 1.5
 * bytes each and ends with a private header block.
 */
namespace replacement_frame {

/**
 * How many bytes the row of an imageWidth x imageHeight frame has. The product of the two is taken as a
 * signed 32-bit number here, as the configuration's numbers are, and as an unsigned one by readStreamIndex(),
 * as the helper's are: both wrap, and they agree below 2^31 pixels. A sum out of range gives the nearest in
 * range; 0 and other sizes that no reader accepts are left to the reader to refuse.
 */
uint32_t rowBytes(int32_t imageWidth, int32_t imageHeight);

/**
 * Reads the stream index that the application wrote into the frame of imageWidth x imageHeight pixels. False
 * when the row of byteCount bytes is too short to hold it. Reads the word once, since the application may
 * still write to it; its value is not checked.
 */
bool readStreamIndex(const uint8_t* row, size_t byteCount, uint32_t imageWidth, uint32_t imageHeight,
                     uint32_t& streamIndex);

}  // namespace replacement_frame
