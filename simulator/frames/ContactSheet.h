#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "FrameCounter.h"
#include "FrameView.h"

namespace vel::sim {

/**
 * A picture of what happened: captured frames beside the frames that replaced them, a labelled row for each
 * chosen moment, written as one PNG.
 *
 * Holds small copies of at most kMaxRows pairs. Not thread-safe.
 */
class ContactSheet {
  public:
    static constexpr size_t kMaxRows = 24;

    struct Moment {
        uint32_t stream = 0;
        std::optional<uint32_t> capturedCounter;  // empty when it could not be read
        std::optional<uint32_t> replacedCounter;
        std::optional<int64_t> latencyNs;  // from capture to replacement
    };

    /**
     * Adds a row, with copies of the frames scaled down to 320 by 240 pixels at most. No replaced frame, when
     * none came in time, shows as a grey field. False, with nothing added, once there are kMaxRows.
     */
    bool add(const Moment& moment, const ConstFrameView& captured,
             const std::optional<ConstFrameView>& replaced);

    size_t rows() const { return mRows.size(); }

    /**
     * Writes the sheet; missing folders are made. The file appears, or is replaced, only when it is complete.
     * Throws std::runtime_error with one line that names the file when it cannot be written, and
     * std::logic_error when there are no rows.
     */
    void write(const std::string& file) const;

  private:
    struct Row {
        Moment moment;
        Frame captured;
        Frame replaced;  // or the grey field in its place
        bool hasReplaced;
    };

    static int heightOf(const Row& row);
    static void drawRow(const FrameView& sheet, const Row& row, int top);

    std::vector<Row> mRows;
};

}  // namespace vel::sim
