#pragma once

#include <string>
#include <type_traits>

namespace vel::sim {

/**
 * A text in quotes that JSON accepts, whatever its bytes: what is not UTF-8 becomes the replacement
 * character.
 */
std::string jsonQuoted(const std::string& text);

/** Builds the text of a JSON object, its members in the order in which they are added. */
class JsonObject {
  public:
    static constexpr size_t kMaxText = size_t{16} * 1024;

    /** A longer text than kMaxText bytes is cut, with a remark about its length. */
    JsonObject& add(const char* name, const std::string& text);
    JsonObject& add(const char* name, const char* text) { return add(name, std::string(text)); }
    JsonObject& add(const char* name, bool value) { return addJson(name, value ? "true" : "false"); }
    /** Microseconds, milliseconds and the like: three decimals. A value that is not finite becomes null. */
    JsonObject& add(const char* name, double value);
    template <typename T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
    JsonObject& add(const char* name, T value) {
        return addJson(name, std::to_string(value));
    }
    /** A value that is JSON already. */
    JsonObject& addJson(const char* name, const std::string& json);

    bool isEmpty() const { return mMembers.empty(); }
    std::string text() const { return "{" + mMembers + "}"; }

  private:
    std::string mMembers;
};

}  // namespace vel::sim
