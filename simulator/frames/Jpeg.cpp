#include "Jpeg.h"

#include <libyuv.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>

// Needs what is declared above.
#include <jpeglib.h>

namespace vel::sim {

namespace {

constexpr int kChannels = 3;

// The library ends the process when something fails, unless it is left by a jump.
struct Errors {
    jpeg_error_mgr manager;
    std::jmp_buf failed;
};

void leave(j_common_ptr encoder) {
    std::longjmp(reinterpret_cast<Errors*>(encoder->err)->failed, 1);
}

void begin(jpeg_compress_struct& encoder, FrameSize size, int quality) {
    encoder.image_width = static_cast<JDIMENSION>(size.width);
    encoder.image_height = static_cast<JDIMENSION>(size.height);
    encoder.input_components = kChannels;
    encoder.in_color_space = JCS_RGB;
    jpeg_set_defaults(&encoder);
    jpeg_set_quality(&encoder, quality, TRUE);
    jpeg_start_compress(&encoder, TRUE);
}

// Holds nothing that a jump would leave undone. The memory becomes the caller's.
bool encode(const uint8_t* rgb, FrameSize size, int quality, unsigned char** memory, unsigned long* bytes) {
    jpeg_compress_struct encoder;
    Errors errors;
    encoder.err = jpeg_std_error(&errors.manager);
    errors.manager.error_exit = leave;
    if (setjmp(errors.failed) != 0) {
        jpeg_destroy_compress(&encoder);
        return false;
    }
    jpeg_create_compress(&encoder);
    jpeg_mem_dest(&encoder, memory, bytes);
    begin(encoder, size, quality);
    while (encoder.next_scanline < encoder.image_height) {
        auto* row =
            const_cast<JSAMPROW>(rgb + size_t{encoder.next_scanline} * encoder.image_width * kChannels);
        jpeg_write_scanlines(&encoder, &row, 1);
    }
    jpeg_finish_compress(&encoder);
    jpeg_destroy_compress(&encoder);
    return true;
}

}  // namespace

std::vector<uint8_t> encodeJpeg(const ConstFrameView& picture, int quality) {
    const FrameSize size = picture.size();
    std::vector<uint8_t> rgb(static_cast<size_t>(size.width) * static_cast<size_t>(size.height) * kChannels);
    libyuv::I420ToRAW(picture.y().data, picture.y().stride, picture.u().data, picture.u().stride,
                      picture.v().data, picture.v().stride, rgb.data(), size.width * kChannels, size.width,
                      size.height);
    unsigned char* memory = nullptr;
    unsigned long bytes = 0;
    const bool isEncoded = encode(rgb.data(), size, quality, &memory, &bytes);
    std::vector<uint8_t> jpeg;
    if (isEncoded) jpeg.assign(memory, memory + bytes);
    std::free(memory);
    return jpeg;
}

}  // namespace vel::sim
