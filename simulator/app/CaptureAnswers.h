#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace vel::sim {

struct CaptureMessage {
    uint32_t frame = 0;
    bool isRequest = false;
};

/** Which capture a message of the HAL is about; nothing for any other message. */
std::optional<CaptureMessage> captureIn(const std::string& message);

/**
 * The answer that makes the changes of metadataChanges() which apply to the capture; empty when none does.
 */
std::string changesOf(const CaptureMessage& capture);

/** What the application answers to captures. Any thread may call. */
class CaptureAnswers {
  public:
    /** Nothing at first, or changesOf() the capture. */
    explicit CaptureAnswers(bool changesSome) : mChangesSome(changesSome) {}

    /** True for lines that execute() understands: those that begin with the word answer. */
    static bool isCommand(const std::string& line);
    /**
     * "answer {...}" is the answer to every capture from then on; "answer {}" answers by nothing. False, said
     * in an error line, for what is no JSON object.
     */
    bool execute(const std::string& line);

    std::string to(const CaptureMessage& capture) const;

  private:
    const bool mChangesSome;
    mutable std::mutex mLock;
    std::optional<std::string> mAnswer;  // guarded by mLock
};

}  // namespace vel::sim
