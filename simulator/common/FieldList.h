#pragma once

#include <map>
#include <string>

namespace vel::sim {

/**
 * A command line of words: a verb, plain words, then fields as in size=640x480 or file="my clip.mp4".
 * Everything that cannot be understood is thrown as std::invalid_argument with one line.
 */
class FieldList {
  public:
    explicit FieldList(const std::string& line);

    /** The words before the first field, the verb first. */
    const std::string& word(size_t index) const;

    /** A field's text, or the fallback when it is not given. */
    std::string text(const std::string& name, const std::string& fallback = "");
    /** A field's number within bounds. */
    int number(const std::string& name, int fallback, int least, int most);
    /** A field of two numbers, as in 640x480; false, and nothing written, when it is not given. */
    bool pair(const std::string& name, int& first, int& second);

    /** Throws when a field was given that nobody has asked for. */
    void rejectOthers() const;

    /** A text as the value of a field, quoted. It must not hold a newline. */
    static std::string quoted(const std::string& text);

  private:
    std::map<size_t, std::string> mWords;
    std::map<std::string, std::string> mFields;
    std::map<std::string, bool> mAsked;
};

}  // namespace vel::sim
