#pragma once

#include <cstdint>
#include <string_view>

#include "FrameView.h"

namespace vel::sim {

struct Colour {
    uint8_t y = 0;
    uint8_t u = 128;
    uint8_t v = 128;
};

constexpr Colour kBlack{16, 128, 128};
constexpr Colour kWhite{235, 128, 128};
constexpr Colour kGrey{96, 128, 128};

struct Area {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

/**
 * Fills the part of the area that lies inside the frame. Chroma has half the resolution, so colours are exact
 * for even coordinates.
 */
void fillArea(const FrameView& frame, const Area& area, const Colour& colour);

// Characters are 5 by 7 dots in a cell of 6 by 8.
constexpr int kTextCellWidth = 6;
constexpr int kTextHeight = 7;

/**
 * Draws a line of text into the luma plane with its top left corner at x, y, each dot a square of that many
 * pixels; what falls outside the frame is cut. Known are digits, letters (drawn as capitals) and " .:-#/%()";
 * any other character becomes a filled block.
 */
void drawText(const FrameView& frame, int x, int y, int dot, std::string_view text,
              const Colour& colour = kWhite);

constexpr int textWidth(std::string_view text, int dot) {
    return static_cast<int>(text.size()) * kTextCellWidth * dot;
}

}  // namespace vel::sim
