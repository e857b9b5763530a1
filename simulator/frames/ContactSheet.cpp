#include "ContactSheet.h"

#include <libyuv.h>
#include <png.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "AtomicFile.h"
#include "Drawing.h"

namespace vel::sim {
namespace {

constexpr int kMaxWidth = 320;
constexpr int kMaxHeight = 240;
constexpr int kGap = 8;
constexpr int kDot = 2;  // pixels of a label's dot
constexpr int kLabelHeight = kTextHeight * kDot + kGap;
constexpr int kSheetWidth = 3 * kGap + 2 * kMaxWidth;
constexpr Colour kPaper{28, 128, 128};

// The largest even size of the same shape that fits a row, at least 2 by 2.
FrameSize fitted(FrameSize size) {
    const double scale = std::min(
        {1.0, static_cast<double>(kMaxWidth) / size.width, static_cast<double>(kMaxHeight) / size.height});
    return {std::max(2, static_cast<int>(size.width * scale) / 2 * 2),
            std::max(2, static_cast<int>(size.height * scale) / 2 * 2)};
}

Frame thumbnail(const ConstFrameView& frame) {
    Frame small(fitted(frame.size()));
    copyFrame(frame, small.view());
    return small;
}

Frame greyField(FrameSize size) {
    Frame field(fitted(size));
    fillArea(field.view(), {0, 0, field.size().width, field.size().height}, kGrey);
    return field;
}

void place(const FrameView& sheet, const ConstFrameView& picture, int x, int y) {
    for (size_t i = 0; i < sheet.planes().size(); ++i) {
        const Plane<const uint8_t>& plane = picture.planes()[i];
        const int scale = i == 0 ? 1 : 2;
        copyPlane(plane, sheet.planes()[i].part(x / scale, y / scale, plane.width, plane.height));
    }
}

std::string numberText(const std::optional<uint32_t>& counter) {
    return counter ? " #" + std::to_string(*counter) : " UNREAD";
}

std::string latencyText(const std::optional<int64_t>& latencyNs) {
    if (!latencyNs) return "";
    char text[32];
    std::snprintf(text, sizeof(text), " %.1f MS", static_cast<double>(*latencyNs) / 1e6);
    return text;
}

std::vector<uint8_t> toRgb(const ConstFrameView& frame) {
    const auto [width, height] = frame.size();
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
    libyuv::I420ToRAW(frame.y().data, frame.y().stride, frame.u().data, frame.u().stride, frame.v().data,
                      frame.v().stride, rgb.data(), width * 3, width, height);
    return rgb;
}

}  // namespace

bool ContactSheet::add(const Moment& moment, const ConstFrameView& captured,
                       const std::optional<ConstFrameView>& replaced) {
    if (mRows.size() == kMaxRows) return false;
    mRows.push_back({moment, thumbnail(captured),
                     replaced ? thumbnail(*replaced) : greyField(captured.size()), replaced.has_value()});
    return true;
}

int ContactSheet::heightOf(const Row& row) {
    return kLabelHeight + std::max(row.captured.size().height, row.replaced.size().height) + kGap;
}

void ContactSheet::drawRow(const FrameView& sheet, const Row& row, int top) {
    const int right = 2 * kGap + kMaxWidth;
    const Moment& moment = row.moment;
    drawText(sheet, kGap, top, kDot,
             "STREAM " + std::to_string(moment.stream) + " CAPTURED" + numberText(moment.capturedCounter));
    drawText(sheet, right, top, kDot,
             row.hasReplaced ? "REPLACED" + numberText(moment.replacedCounter) + latencyText(moment.latencyNs)
                             : "NO REPLACEMENT");
    place(sheet, row.captured.view(), kGap, top + kLabelHeight);
    place(sheet, row.replaced.view(), right, top + kLabelHeight);
}

void ContactSheet::write(const std::string& file) const {
    if (mRows.empty()) throw std::logic_error("a contact sheet without rows");
    int height = kGap;
    for (const Row& row : mRows)
        height += heightOf(row);
    Frame sheet({kSheetWidth, height});
    fillArea(sheet.view(), {0, 0, kSheetWidth, height}, kPaper);
    int top = kGap;
    for (const Row& row : mRows) {
        drawRow(sheet.view(), row, top);
        top += heightOf(row);
    }

    AtomicFile target(file);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = kSheetWidth;
    image.height = static_cast<png_uint_32>(height);
    image.format = PNG_FORMAT_RGB;
    const std::vector<uint8_t> rgb = toRgb(sheet.view());
    if (png_image_write_to_stdio(&image, target.stream(), 0, rgb.data(), 0, nullptr) == 0)
        AtomicFile::fail(file, image.message);
    target.putInPlace();
}

}  // namespace vel::sim
